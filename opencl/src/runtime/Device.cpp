// Every device of every platform is looked at once; the rank of its type decides.
#include "runtime/Device.h"

#include <cstdio>
#include <vector>

#include "runtime/Error.h"

namespace ravu::opencl {

namespace {

std::string text_of(cl_device_id device, cl_device_info what) {
  size_t size = 0;
  if (clGetDeviceInfo(device, what, 0, nullptr, &size) != CL_SUCCESS || size == 0) return "";
  std::string text(size, '\0');
  if (clGetDeviceInfo(device, what, size, text.data(), nullptr) != CL_SUCCESS) return "";
  text.resize(size - 1);
  return text;
}

std::string platform_version(cl_platform_id platform) {
  size_t size = 0;
  if (clGetPlatformInfo(platform, CL_PLATFORM_VERSION, 0, nullptr, &size) != CL_SUCCESS) return "";
  std::string text(size, '\0');
  clGetPlatformInfo(platform, CL_PLATFORM_VERSION, size, text.data(), nullptr);
  if (size > 0) text.resize(size - 1);
  return text;
}

template <typename Number>
Number number_of(cl_device_id device, cl_device_info what) {
  Number number = 0;
  clGetDeviceInfo(device, what, sizeof(number), &number, nullptr);
  return number;
}

// Lower is better; negative: not usable.
int rank_of(cl_device_id device) {
  int major = 0;
  int minor = 0;
  const std::string version = text_of(device, CL_DEVICE_VERSION);
  if (std::sscanf(version.c_str(), "OpenCL %d.%d", &major, &minor) != 2) return -1;
  if (major * 10 + minor < 12) return -1;
  if (!number_of<cl_bool>(device, CL_DEVICE_AVAILABLE)) return -1;
  if (!number_of<cl_bool>(device, CL_DEVICE_COMPILER_AVAILABLE)) return -1;
  const auto type = number_of<cl_device_type>(device, CL_DEVICE_TYPE);
  if (type & CL_DEVICE_TYPE_GPU) return 0;
  if (type & CL_DEVICE_TYPE_ACCELERATOR) return 1;
  if (type & CL_DEVICE_TYPE_CPU) return 2;
  return -1;
}

std::vector<cl_device_id> devices_of(cl_platform_id platform) {
  cl_uint count = 0;
  if (clGetDeviceIDs(platform, CL_DEVICE_TYPE_ALL, 0, nullptr, &count) != CL_SUCCESS) return {};
  std::vector<cl_device_id> devices(count);
  clGetDeviceIDs(platform, CL_DEVICE_TYPE_ALL, count, devices.data(), nullptr);
  return devices;
}

Device describe(cl_platform_id platform, cl_device_id id) {
  Device device;
  device.platform = platform;
  device.id = id;
  device.type = number_of<cl_device_type>(id, CL_DEVICE_TYPE);
  device.name = text_of(id, CL_DEVICE_NAME);
  device.vendor = text_of(id, CL_DEVICE_VENDOR);
  device.driver = text_of(id, CL_DRIVER_VERSION);
  device.platform_version = platform_version(platform);
  device.largest_buffer =
      static_cast<size_t>(number_of<cl_ulong>(id, CL_DEVICE_MAX_MEM_ALLOC_SIZE));
  device.shares_memory = number_of<cl_bool>(id, CL_DEVICE_HOST_UNIFIED_MEMORY) != CL_FALSE;
  device.native_floats =
      static_cast<int>(number_of<cl_uint>(id, CL_DEVICE_NATIVE_VECTOR_WIDTH_FLOAT));
  return device;
}

}  // namespace

Device choose_device() {
  cl_uint count = 0;
  if (clGetPlatformIDs(0, nullptr, &count) != CL_SUCCESS || count == 0) {
    refuse("no OpenCL platform is installed");
  }
  std::vector<cl_platform_id> platforms(count);
  check_cl(clGetPlatformIDs(count, platforms.data(), nullptr), "listing the OpenCL platforms");

  Device best;
  int best_rank = -1;
  std::string passed_over;
  for (cl_platform_id platform : platforms) {
    for (cl_device_id id : devices_of(platform)) {
      const int rank = rank_of(id);
      if (rank < 0) passed_over += " \"" + text_of(id, CL_DEVICE_NAME) + "\"";
      if (rank < 0 || (best_rank >= 0 && rank >= best_rank)) continue;
      best = describe(platform, id);
      best_rank = rank;
    }
  }
  if (best_rank < 0) {
    refuse("no usable OpenCL device: needed are OpenCL 1.2 and a compiler; " +
           (passed_over.empty() ? "the platforms offer no device" : "passed over:" + passed_over));
  }
  return best;
}

}  // namespace ravu::opencl
