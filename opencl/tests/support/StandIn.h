// What the functions that stand in for OpenCL's make of the device.
#pragma once

#include <atomic>
#include <cstddef>

namespace ravu::opencl::test {

// The most work items that any work-group may have; 0: as many as the device takes.
extern std::atomic<std::size_t> group_limit;

// Each device stands for three: a processor, an accelerator and a GPU, in this order.
extern std::atomic<bool> devices_are_tripled;

}  // namespace ravu::opencl::test
