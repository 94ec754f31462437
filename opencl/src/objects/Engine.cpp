// There is one engine type and one engine number; which device stands behind it is choose_device's.
#include "objects/Engine.h"

#include <string>
#include <string_view>

#include "runtime/Error.h"

using namespace ravu::opencl;

namespace {

Device checked_device(int32_t type, uint32_t number,
                      const cldnn_engine_configuration* configuration) {
  if (type != CLDNN_ENGINE_OPENCL) {
    throw Error(CLDNN_DEVICE_ERROR, "there is no engine type " + std::to_string(type));
  }
  if (number != 0) {
    throw Error(CLDNN_DEVICE_ERROR, "there is no engine number " + std::to_string(number));
  }
  if (configuration != nullptr && (configuration->compiler_options == nullptr ||
                                   configuration->single_kernel_name == nullptr)) {
    refuse("the engine configuration has a null text");
  }
  return choose_device();
}

// What product_local asks for: its work-groups of 16 x 16, and less than this memory.
bool takes_tiles(const Device& device) {
  return device.largest_group >= 256 && device.local_memory >= 16384;
}

}  // namespace

cldnn_engine_impl::cldnn_engine_impl(int32_t type, uint32_t number,
                                     const cldnn_engine_configuration* configuration)
    : queue(checked_device(type, number, configuration)),
      local_tiles(!queue.device().is_processor()) {
  const std::string_view chosen = configuration == nullptr ? "" : configuration->single_kernel_name;
  if (chosen == "product_local") local_tiles = true;
  if (chosen == "product_registers" || !takes_tiles(queue.device())) local_tiles = false;
}
