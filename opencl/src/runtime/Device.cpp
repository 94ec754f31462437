// Every device of every platform is looked at once; the rank of its type decides.
#include "runtime/Device.h"

#include <cstdio>
#include <vector>

#include "runtime/Error.h"

namespace ravu::opencl {

namespace {

// A text about a device (get: clGetDeviceInfo) or a platform (clGetPlatformInfo); empty where there
// is none.
template <auto get, typename Object>
std::string text_of(Object object, cl_uint what) {
  size_t size = 0;
  if (get(object, what, 0, nullptr, &size) != CL_SUCCESS || size == 0) return "";
  std::string text(size, '\0');
  if (get(object, what, size, text.data(), nullptr) != CL_SUCCESS) return "";
  text.resize(size - 1);
  return text;
}

template <typename Number>
Number number_of(cl_device_id device, cl_device_info what) {
  Number number = 0;
  clGetDeviceInfo(device, what, sizeof(number), &number, nullptr);
  return number;
}

bool speaks_1_2(const std::string& version) {
  int major = 0;
  int minor = 0;
  return std::sscanf(version.c_str(), "OpenCL %d.%d", &major, &minor) == 2 &&
         major * 10 + minor >= 12;
}

// Why the device cannot compute; empty where it can.
std::string why_refused(const Device& device) {
  if (!speaks_1_2(device.version)) return "does not have OpenCL 1.2";
  if (!number_of<cl_bool>(device.id, CL_DEVICE_AVAILABLE)) return "is not available";
  if (!number_of<cl_bool>(device.id, CL_DEVICE_COMPILER_AVAILABLE)) return "has no compiler";
  constexpr cl_device_type kKinds =
      CL_DEVICE_TYPE_GPU | CL_DEVICE_TYPE_ACCELERATOR | CL_DEVICE_TYPE_CPU;
  return (device.type & kKinds) != 0 ? "" : "is of an unknown kind";
}

// Lower is better.
int rank_of(const Device& device) {
  if ((device.type & CL_DEVICE_TYPE_GPU) != 0) return 0;
  return (device.type & CL_DEVICE_TYPE_ACCELERATOR) != 0 ? 1 : 2;
}

std::vector<cl_platform_id> all_platforms() {
  cl_uint count = 0;
  if (clGetPlatformIDs(0, nullptr, &count) != CL_SUCCESS || count == 0) return {};
  std::vector<cl_platform_id> platforms(count);
  check_cl(clGetPlatformIDs(count, platforms.data(), nullptr), "listing the OpenCL platforms");
  return platforms;
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
  device.name = text_of<clGetDeviceInfo>(id, CL_DEVICE_NAME);
  device.vendor = text_of<clGetDeviceInfo>(id, CL_DEVICE_VENDOR);
  device.version = text_of<clGetDeviceInfo>(id, CL_DEVICE_VERSION);
  device.driver = text_of<clGetDeviceInfo>(id, CL_DRIVER_VERSION);
  device.platform_name = text_of<clGetPlatformInfo>(platform, CL_PLATFORM_NAME);
  device.platform_version = text_of<clGetPlatformInfo>(platform, CL_PLATFORM_VERSION);
  device.memory = number_of<cl_ulong>(id, CL_DEVICE_GLOBAL_MEM_SIZE);
  device.compute_units = number_of<cl_uint>(id, CL_DEVICE_MAX_COMPUTE_UNITS);
  device.largest_buffer =
      static_cast<size_t>(number_of<cl_ulong>(id, CL_DEVICE_MAX_MEM_ALLOC_SIZE));
  device.largest_group = number_of<size_t>(id, CL_DEVICE_MAX_WORK_GROUP_SIZE);
  device.local_memory = static_cast<size_t>(number_of<cl_ulong>(id, CL_DEVICE_LOCAL_MEM_SIZE));
  device.shares_memory = number_of<cl_bool>(id, CL_DEVICE_HOST_UNIFIED_MEMORY) != CL_FALSE;
  device.native_floats =
      static_cast<int>(number_of<cl_uint>(id, CL_DEVICE_NATIVE_VECTOR_WIDTH_FLOAT));
  device.fuses = (number_of<cl_device_fp_config>(id, CL_DEVICE_SINGLE_FP_CONFIG) & CL_FP_FMA) != 0;
  device.refused = why_refused(device);
  return device;
}

}  // namespace

std::vector<Device> all_devices() {
  std::vector<Device> devices;
  for (cl_platform_id platform : all_platforms()) {
    for (cl_device_id id : devices_of(platform)) devices.push_back(describe(platform, id));
  }
  return devices;
}

const Device* best_of(const std::vector<Device>& devices) {
  const Device* best = nullptr;
  for (const Device& device : devices) {
    if (!device.refused.empty()) continue;
    if (best == nullptr || rank_of(device) < rank_of(*best)) best = &device;
  }
  return best;
}

Device choose_device() {
  if (all_platforms().empty()) refuse("no OpenCL platform is installed");
  const std::vector<Device> devices = all_devices();
  const Device* best = best_of(devices);
  if (best != nullptr) return *best;
  std::string passed_over;
  for (const Device& device : devices) {
    passed_over += (passed_over.empty() ? "" : ", ");
    passed_over += '"' + device.name + "\" " + device.refused;
  }
  refuse("no usable OpenCL device: " +
         (passed_over.empty() ? "the platforms offer none" : passed_over));
}

}  // namespace ravu::opencl
