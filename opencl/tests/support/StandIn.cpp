// Stands in for OpenCL's questions about devices, so that what GPUs and wider processors get is
// tested on whatever device there is. RAVU_TEST_DEVICE names the part that it plays.
#include "support/StandIn.h"

#define CL_TARGET_OPENCL_VERSION 120
#include <CL/cl.h>
#include <dlfcn.h>
#include <stdlib.h>

#include <string>

namespace ravu::opencl::test {

std::atomic<std::size_t> group_limit{0};
std::atomic<bool> devices_are_tripled{false};

}  // namespace ravu::opencl::test

using ravu::opencl::test::devices_are_tripled;
using ravu::opencl::test::group_limit;

namespace {

template <typename Value>
void answer(void* place, Value value) {
  *static_cast<Value*>(place) = value;
}

// "gpu": a GPU with memory of its own that does not fuse multiplications and additions. "wide": a
// processor with vectors of 16 floats.
void play(const std::string& part, cl_device_info what, void* value) {
  if (part == "gpu" && what == CL_DEVICE_TYPE) answer<cl_device_type>(value, CL_DEVICE_TYPE_GPU);
  if (part == "gpu" && what == CL_DEVICE_HOST_UNIFIED_MEMORY) answer<cl_bool>(value, CL_FALSE);
  if (part == "gpu" && what == CL_DEVICE_SINGLE_FP_CONFIG) {
    answer<cl_device_fp_config>(value, CL_FP_ROUND_TO_NEAREST | CL_FP_INF_NAN);
  }
  if (part == "wide" && what == CL_DEVICE_NATIVE_VECTOR_WIDTH_FLOAT) answer<cl_uint>(value, 16);
}

// Each device is asked for its type once, in the order of the list.
cl_device_type next_kind() {
  static std::atomic<unsigned> asked{0};
  constexpr cl_device_type kKinds[] = {CL_DEVICE_TYPE_CPU, CL_DEVICE_TYPE_ACCELERATOR,
                                       CL_DEVICE_TYPE_GPU};
  return kKinds[asked++ % 3];
}

}  // namespace

extern "C" __attribute__((visibility("default"))) cl_int clGetDeviceIDs(cl_platform_id platform,
                                                                        cl_device_type type,
                                                                        cl_uint room,
                                                                        cl_device_id* devices,
                                                                        cl_uint* found) {
  static auto* const real = reinterpret_cast<decltype(&clGetDeviceIDs)>(dlsym(RTLD_NEXT, __func__));
  const cl_uint times = devices_are_tripled ? 3 : 1;
  const cl_int code = real(platform, type, room / times, devices, found);
  if (code != CL_SUCCESS) return code;
  if (found != nullptr) *found *= times;
  for (cl_uint i = room; devices != nullptr && i-- > 0;) devices[i] = devices[i / times];
  return code;
}

extern "C" __attribute__((visibility("default"))) cl_int clGetDeviceInfo(cl_device_id device,
                                                                         cl_device_info what,
                                                                         size_t size, void* value,
                                                                         size_t* written) {
  static auto* const real =
      reinterpret_cast<decltype(&clGetDeviceInfo)>(dlsym(RTLD_NEXT, __func__));
  const cl_int code = real(device, what, size, value, written);
  static const char* const part = getenv("RAVU_TEST_DEVICE");
  if (code != CL_SUCCESS || value == nullptr) return code;
  if (part != nullptr) play(part, what, value);
  if (devices_are_tripled && what == CL_DEVICE_TYPE) answer<cl_device_type>(value, next_kind());
  const std::size_t limit = group_limit;
  if (limit != 0 && what == CL_DEVICE_MAX_WORK_GROUP_SIZE) answer<std::size_t>(value, limit);
  return code;
}

extern "C" __attribute__((visibility("default"))) cl_int clGetKernelWorkGroupInfo(
    cl_kernel kernel, cl_device_id device, cl_kernel_work_group_info what, std::size_t size,
    void* value, std::size_t* written) {
  static auto* const real =
      reinterpret_cast<decltype(&clGetKernelWorkGroupInfo)>(dlsym(RTLD_NEXT, __func__));
  const cl_int code = real(kernel, device, what, size, value, written);
  const std::size_t limit = group_limit;
  if (code == CL_SUCCESS && value != nullptr && limit != 0 && what == CL_KERNEL_WORK_GROUP_SIZE) {
    answer<std::size_t>(value, limit);
  }
  return code;
}
