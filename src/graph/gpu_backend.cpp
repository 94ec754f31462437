// The GPU run modes answer like a machine on which no GPU library can be loaded.
#include "graph/gpu_backend.h"

#include "graph/cldnn_handles.h"

namespace ravu {

bool setup_gpu(Network& network, bool) {
  constexpr std::int32_t kNotAvailable = -1;
  network.layout = kInterleaved;
  throw cldnn::error(
      "failed to create engine: this version of ravu has no GPU library to load; use run mode 0",
      kNotAvailable);
}

}  // namespace ravu
