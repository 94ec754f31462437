// An engine: a device and its queue, and how convolutions are to run on it.
#pragma once

#include "cldnn/cldnn.h"
#include "objects/Counted.h"
#include "runtime/Queue.h"

struct cldnn_engine_impl final : ravu::opencl::Counted {
  // Refuses unknown types and numbers with CLDNN_DEVICE_ERROR, null texts with CLDNN_ERROR.
  cldnn_engine_impl(int32_t type, uint32_t number, const cldnn_engine_configuration* configuration);

  ravu::opencl::Queue queue;
  // Products with tiles in local memory (GPUs) or in registers (processors). The configuration's
  // single kernel name "product_local" or "product_registers" chooses against the device's nature;
  // registers it is where a device has too little for tiles.
  bool local_tiles = false;
};

namespace ravu::opencl {
using Engine = ::cldnn_engine_impl;
}
