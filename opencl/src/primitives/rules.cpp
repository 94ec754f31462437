// The limits keep every coordinate that a kernel computes inside 32 bits.
#include "primitives/rules.h"

#include <algorithm>
#include <cstdlib>

#include "runtime/Error.h"

namespace ravu::opencl {

namespace {

constexpr int64_t kMostSpatial = 1 << 28;

}  // namespace

void need_plane_formats(const Primitive& primitive, const Tensor& in) {
  if (in.format == CLDNN_FORMAT_YXFB || in.format == CLDNN_FORMAT_BFYX) return;
  refuse(primitive.id + ": there is no kernel for inputs of format " + std::to_string(in.format));
}

int64_t positions(const Primitive& primitive, const Window& window, int64_t input,
                  Rounding rounding) {
  if (window.stride < 1) refuse(primitive.id + ": a stride must be at least 1");
  if (window.dilation < 1) refuse(primitive.id + ": a dilation must be at least 1");
  if (2 * window.offset > input) {
    refuse(primitive.id + ": the input offset leaves nothing of the input");
  }
  const int64_t extent = window.dilation * (window.size - 1) + 1;
  if (std::max({input, window.stride, std::abs(window.offset), extent}) > kMostSpatial) {
    refuse(primitive.id + ": a spatial size is too large");
  }
  if (2 * window.offset == input) return 0;
  const int64_t room = std::max<int64_t>(input - 2 * window.offset - extent, 0);
  const int64_t up = rounding == Rounding::kUp ? window.stride - 1 : 0;
  return (room + up) / window.stride + 1;
}

void need_values_along_x(const Primitive& primitive, const Tensor& values, int64_t wanted,
                         const char* what) {
  if (values.b == 1 && values.f == 1 && values.x == wanted && values.y == 1) return;
  refuse(primitive.id + ": the " + what + " must be 1 x 1 x " + std::to_string(wanted) +
         " x 1, but is " + text(values));
}

}  // namespace ravu::opencl
