// Running out of memory is told apart from every other failure: the interface has a status for it.
#include "runtime/handles.h"

#include "runtime/Error.h"

namespace ravu::opencl {

EventHandle share(cl_event event) {
  if (event != nullptr) check_cl(clRetainEvent(event), "keeping an event");
  return EventHandle(event);
}

void check_cl(cl_int code, const char* operation) {
  if (code == CL_SUCCESS) return;
  const std::string text =
      std::string(operation) + " failed with OpenCL error " + std::to_string(code);
  switch (code) {
    case CL_MEM_OBJECT_ALLOCATION_FAILURE:
    case CL_OUT_OF_RESOURCES:
    case CL_OUT_OF_HOST_MEMORY:
    case CL_INVALID_BUFFER_SIZE:
      out_of_resources(text);
    default:
      refuse(text);
  }
}

}  // namespace ravu::opencl
