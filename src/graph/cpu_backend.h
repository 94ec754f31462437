// Running a network on the processor: run mode 0 (single precision) and 3 (fixed point where a
// layer has such a form).
#pragma once

#include <cstdint>

#include "graph/ravuGraph.h"

namespace ravu {

// Prepares every layer for the mode. May be called again, for the same mode or the other one.
// Returns true; throws std::bad_alloc, also when the layers' scratch Blobs pass the memory limit.
bool setup_cpu(Network& network, std::uint32_t mode);

// Runs one layer of a pass, unless the layer before has done its work.
void forward_layer(BaseLayer& layer, std::uint32_t mode);

// Subtracts the mean from the input, in place, then runs every layer in order. Without new input a
// second pass subtracts the mean again.
void forward_cpu(Network& network, std::uint32_t mode);

}  // namespace ravu
