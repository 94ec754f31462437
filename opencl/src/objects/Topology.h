// The primitives of a network, as they were added. Nothing is resolved here: ids may be read before
// the primitives that bear them are added.
#pragma once

#include <map>
#include <memory>
#include <string>

#include "cldnn/cldnn.h"
#include "objects/Counted.h"
#include "primitives/Primitive.h"

struct cldnn_topology_impl final : ravu::opencl::Counted {
  // Refuses unknown types, null texts and ids that are there already.
  void add(const cldnn_primitive& descriptor);

  // By id, so in text order.
  std::map<std::string, std::shared_ptr<const ravu::opencl::Primitive>> primitives;
};

namespace ravu::opencl {
using Topology = ::cldnn_topology_impl;
}
