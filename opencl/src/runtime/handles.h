// OpenCL objects that release themselves, and the check that turns OpenCL's codes into Errors.
#pragma once

#define CL_TARGET_OPENCL_VERSION 120
#include <CL/cl.h>

#include <memory>
#include <type_traits>

namespace ravu::opencl {

template <auto release>
struct Releaser {
  template <typename Object>
  void operator()(Object* object) const {
    release(object);
  }
};

template <typename Pointer, auto release>
using Handle = std::unique_ptr<std::remove_pointer_t<Pointer>, Releaser<release>>;

using ContextHandle = Handle<cl_context, clReleaseContext>;
using QueueHandle = Handle<cl_command_queue, clReleaseCommandQueue>;
using ProgramHandle = Handle<cl_program, clReleaseProgram>;
using KernelHandle = Handle<cl_kernel, clReleaseKernel>;
using EventHandle = Handle<cl_event, clReleaseEvent>;
using MemHandle = Handle<cl_mem, clReleaseMemObject>;

// One more owner of an event; null stays null.
EventHandle share(cl_event event);

// Throws an Error that names the operation and OpenCL's code.
void check_cl(cl_int code, const char* operation);

}  // namespace ravu::opencl
