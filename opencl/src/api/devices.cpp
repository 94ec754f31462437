// The list of devices, for people.
#include "cldnn/devices.h"

#include "api/guard.h"
#include "runtime/Device.h"

using namespace ravu::opencl;

namespace {

const char* kind_of(const Device& device) {
  if ((device.type & CL_DEVICE_TYPE_GPU) != 0) return "GPU";
  if ((device.type & CL_DEVICE_TYPE_ACCELERATOR) != 0) return "accelerator";
  return device.is_processor() ? "processor" : "other";
}

}  // namespace

void ravu_cldnn_list_devices(ravu_cldnn_device_visitor visitor, void* context,
                             cldnn_status* status) {
  guarded(status, [&] {
    if (visitor == nullptr) refuse("the visitor is null");
    const std::vector<Device> devices = all_devices();
    const Device* best = best_of(devices);
    for (const Device& device : devices) {
      const ravu_cldnn_device record{
          device.name.c_str(),     kind_of(device),       device.vendor.c_str(),
          device.version.c_str(),  device.driver.c_str(), device.platform_name.c_str(),
          device.refused.c_str(),  device.memory,         device.compute_units,
          &device == best ? 1 : 0,
      };
      visitor(context, &record);
    }
  });
}
