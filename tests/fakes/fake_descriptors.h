// Descriptors of primitives as text.
#pragma once

#include <string>

#include "graph/cldnn_library.h"

namespace ravu::test {

// What stands for a kind in a descriptor, and back.
cldnn_type_id type_of(cldnn::Kind kind);
cldnn::Kind kind_of(const cldnn_primitive& descriptor);

// "pooling pooled <- data: max window 1x3x2x2 stride 1x1x2x2 offset 0x0x0x0". Fields that are zero
// in every network of the engine are left out unless they are not.
std::string text_of(const cldnn_primitive& descriptor);

}  // namespace ravu::test
