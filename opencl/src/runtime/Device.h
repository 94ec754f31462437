// The machine's OpenCL devices, and which of them computes.
#pragma once

#include <string>

#include "runtime/handles.h"

namespace ravu::opencl {

struct Device {
  cl_platform_id platform = nullptr;
  cl_device_id id = nullptr;
  cl_device_type type = 0;
  std::string name;
  std::string vendor;
  std::string driver;
  std::string platform_version;
  size_t largest_buffer = 0;   // bytes
  bool shares_memory = false;  // with the processor
  int native_floats = 1;       // floats in one of its vectors

  bool is_processor() const { return (type & CL_DEVICE_TYPE_CPU) != 0; }
};

// The first GPU, else the first accelerator, else the first processor that has OpenCL 1.2 and a
// compiler. Throws an Error that says what was found where there is none.
Device choose_device();

}  // namespace ravu::opencl
