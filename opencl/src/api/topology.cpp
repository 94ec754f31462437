// The topology calls.
#include "objects/Topology.h"
#include "api/guard.h"

using namespace ravu::opencl;

cldnn_topology cldnn_create_topology(cldnn_status* status) {
  return guarded(status, []() -> cldnn_topology { return new Topology; });
}

void cldnn_add_primitive(cldnn_topology topology, const cldnn_primitive* descriptor,
                         cldnn_status* status) {
  guarded(status, [&] { checked(topology, "topology").add(checked(descriptor, "descriptor")); });
}

void cldnn_retain_topology(cldnn_topology topology, cldnn_status* status) {
  guarded(status, [&] { checked(topology, "topology").retain(); });
}

void cldnn_release_topology(cldnn_topology topology, cldnn_status* status) {
  guarded(status, [&] { checked(topology, "topology").release(); });
}
