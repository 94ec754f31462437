// Descriptors become primitives here and are not looked at again.
#include "objects/Topology.h"

#include "runtime/Error.h"

using namespace ravu::opencl;

void cldnn_topology_impl::add(const cldnn_primitive& descriptor) {
  std::shared_ptr<const Primitive> primitive = kind_of(descriptor.type).make(descriptor);
  if (primitives.contains(primitive->id)) {
    refuse("the topology has a primitive \"" + primitive->id + "\" already");
  }
  primitives.emplace(primitive->id, std::move(primitive));
}
