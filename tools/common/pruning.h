// Cutting a network down to what one of its layers needs.
#pragma once

#include <cstddef>

#include "graph/ravuGraph.h"

namespace ravu::tools {

// Removes every layer behind `target` and every one before it whose work it does not read, directly
// or through others. The network has been loaded and not set up; the target has an output, which
// has storage afterwards.
void keep_ancestors(Network& network, std::size_t target);

}  // namespace ravu::tools
