// Rules that several kinds of primitives share.
#pragma once

#include <cstdint>

#include "primitives/Primitive.h"
#include "primitives/Tensor.h"

namespace ravu::opencl {

// Refuses other formats than yxfb and bfyx, for which the interface has kernels.
void need_plane_formats(const Primitive& primitive, const Tensor& in);

// How a window moves along one spatial dimension.
struct Window {
  int64_t size = 1;
  int64_t stride = 1;
  int64_t offset = 0;  // of the first window, on both sides: the negative of the padding
  int64_t dilation = 1;
};
enum class Rounding { kDown, kUp };
// The number of its positions. Refuses strides and dilations below 1, an offset that leaves less
// than nothing of the input, and values that kernels could not count with.
int64_t positions(const Primitive& primitive, const Window& window, int64_t input,
                  Rounding rounding);

// Refuses a tensor of per-feature values that do not lie along x: b 1, f 1, x `wanted`, y 1.
void need_values_along_x(const Primitive& primitive, const Tensor& values, int64_t wanted,
                         const char* what);

}  // namespace ravu::opencl
