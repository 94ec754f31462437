// The machine's OpenCL devices, and which of them computes.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "runtime/handles.h"

namespace ravu::opencl {

struct Device {
  cl_platform_id platform = nullptr;
  cl_device_id id = nullptr;
  cl_device_type type = 0;
  std::string name;
  std::string vendor;
  std::string version;
  std::string driver;
  std::string platform_name;
  std::string platform_version;
  std::string refused;       // why it cannot compute; empty where it can
  std::uint64_t memory = 0;  // bytes
  cl_uint compute_units = 0;
  size_t largest_buffer = 0;   // bytes
  size_t largest_group = 0;    // work items
  size_t local_memory = 0;     // bytes of a work-group
  bool shares_memory = false;  // with the processor
  int native_floats = 1;       // floats in one of its vectors
  bool fuses = false;          // a multiplication and an addition in hardware

  bool is_processor() const { return (type & CL_DEVICE_TYPE_CPU) != 0; }
};

// Every device of every platform, in OpenCL's order. Usable are GPUs, accelerators and processors
// that are available and have OpenCL 1.2 and a compiler.
std::vector<Device> all_devices();

// The first usable GPU, else the first accelerator, else the first processor; null where there is
// none.
const Device* best_of(const std::vector<Device>& devices);

// The best of all. Throws an Error that says what was found where there is none.
Device choose_device();

}  // namespace ravu::opencl
