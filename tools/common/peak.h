// The most that a processor can compute: what a layer's speed is measured against.
#pragma once

#include <cstdint>

#include "kernels/workers.h"

namespace ravu::tools {

// Multiply-adds of one probe by this many threads.
std::uint64_t peak_multiply_adds(std::size_t threads);

// Seconds that independent fused multiply-adds take that touch no memory, on all threads at once:
// a few milliseconds.
double time_peak(kernels::Workers& workers);

}  // namespace ravu::tools
