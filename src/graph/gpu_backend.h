// Running a network on a GPU: run modes 2 and 4.
#pragma once

#include "graph/ravuGraph.h"

namespace ravu {

// Raises cldnn::error: this version of the engine has no GPU library to load.
bool setup_gpu(Network& network, bool release_weights);

}  // namespace ravu
