// The order of a format's dimensions stands in memory_order and nowhere else.
#include "primitives/Tensor.h"

#include "runtime/Error.h"

namespace ravu::opencl {

namespace {

constexpr int64_t kSaturated = int64_t{1} << 62;

bool is_zero(const cldnn_tensor& tensor) {
  for (int32_t size : tensor.sizes) {
    if (size != 0) return false;
  }
  return true;
}

cldnn_tensor with_counts(cldnn_tensor tensor) {
  tensor.batch_count = 1;
  tensor.feature_count = 1;
  tensor.spatial_count = 2;
  return tensor;
}

}  // namespace

int64_t times(int64_t a, int64_t b) {
  if (a <= 0 || b <= 0) return 0;
  return a > kSaturated / b ? kSaturated : a * b;
}

int64_t count(const Tensor& tensor) {
  return times(times(tensor.b, tensor.f), times(tensor.x, tensor.y));
}

int64_t element_count(const cldnn_tensor& size) {
  int64_t elements = 1;
  for (int32_t entry : size.sizes) elements = times(elements, entry);
  return elements;
}

std::string text(const Tensor& tensor) {
  return std::to_string(tensor.b) + " x " + std::to_string(tensor.f) + " x " +
         std::to_string(tensor.x) + " x " + std::to_string(tensor.y);
}

bool is_padded(const cldnn_padding& padding) {
  return !is_zero(padding.lower) || !is_zero(padding.upper);
}

bool same_layout(const cldnn_layout& a, const cldnn_layout& b) {
  if (a.data_type != b.data_type || a.format != b.format) return false;
  for (int i = 0; i < CLDNN_TENSOR_SIZES; ++i) {
    if (a.size.sizes[i] != b.size.sizes[i]) return false;
    if (a.padding.lower.sizes[i] != b.padding.lower.sizes[i]) return false;
    if (a.padding.upper.sizes[i] != b.padding.upper.sizes[i]) return false;
  }
  return true;
}

cldnn_layout normalised(cldnn_layout layout) {
  layout.size = with_counts(layout.size);
  layout.padding.lower = with_counts(layout.padding.lower);
  layout.padding.upper = with_counts(layout.padding.upper);
  return layout;
}

cldnn_layout layout_of(const Tensor& tensor) {
  cldnn_layout layout{};
  layout.data_type = CLDNN_FLOAT32;
  layout.format = tensor.format;
  for (int32_t& size : layout.size.sizes) size = 1;
  layout.size.sizes[CLDNN_BATCH] = static_cast<int32_t>(tensor.b);
  layout.size.sizes[CLDNN_FEATURE] = static_cast<int32_t>(tensor.f);
  layout.size.sizes[CLDNN_X] = static_cast<int32_t>(tensor.x);
  layout.size.sizes[CLDNN_Y] = static_cast<int32_t>(tensor.y);
  return normalised(layout);
}

Tensor tensor_of(const cldnn_layout& layout) {
  if (layout.data_type != CLDNN_FLOAT32) refuse("only single-precision values are computed on");
  if (layout.format < CLDNN_FORMAT_YXFB || layout.format > CLDNN_FORMAT_FYXB) {
    refuse("format " + std::to_string(layout.format) + " is not computed on");
  }
  if (is_padded(layout.padding)) refuse("padding is not supported");
  return sizes_of(layout.size, layout.format);
}

Tensor sizes_of(const cldnn_tensor& size, int32_t format) {
  for (int i = 4; i < CLDNN_TENSOR_SIZES; ++i) {
    if (size.sizes[i] != 1) refuse("the unused entries of a size must be 1");
  }
  return {format, size.sizes[CLDNN_BATCH], size.sizes[CLDNN_FEATURE], size.sizes[CLDNN_X],
          size.sizes[CLDNN_Y]};
}

std::array<char, 4> memory_order(int32_t format) {
  switch (format) {
    case CLDNN_FORMAT_YXFB:
      return {'y', 'x', 'f', 'b'};
    case CLDNN_FORMAT_BYXF:
      return {'b', 'y', 'x', 'f'};
    case CLDNN_FORMAT_BFYX:
      return {'b', 'f', 'y', 'x'};
    case CLDNN_FORMAT_FYXB:
      return {'f', 'y', 'x', 'b'};
    default:
      refuse("format " + std::to_string(format) + " is not computed on");
  }
}

int64_t size_along(const Tensor& tensor, char dimension) {
  switch (dimension) {
    case 'b':
      return tensor.b;
    case 'f':
      return tensor.f;
    case 'x':
      return tensor.x;
    default:
      return tensor.y;
  }
}

int64_t stride_along(const Strides& strides, char dimension) {
  return size_along({0, strides.b, strides.f, strides.x, strides.y}, dimension);
}

Strides strides_of(const Tensor& tensor) {
  Strides strides{};
  int64_t stride = 1;
  const std::array<char, 4> order = memory_order(tensor.format);
  for (auto dimension = order.rbegin(); dimension != order.rend(); ++dimension) {
    switch (*dimension) {
      case 'b':
        strides.b = stride;
        break;
      case 'f':
        strides.f = stride;
        break;
      case 'x':
        strides.x = stride;
        break;
      default:
        strides.y = stride;
    }
    stride = times(stride, size_along(tensor, *dimension));
  }
  return strides;
}

Planes planes_of(const Tensor& tensor) {
  Planes planes{1, tensor.y, tensor.x, 1};
  bool in_front = true;  // of the spatial dimensions
  for (char dimension : memory_order(tensor.format)) {
    if (dimension == 'y' || dimension == 'x') {
      in_front = false;
    } else {
      int64_t& where = in_front ? planes.planes : planes.depth;
      where = times(where, size_along(tensor, dimension));
    }
  }
  return planes;
}

int64_t feature_run(const Tensor& tensor) {
  return strides_of(tensor).f;
}

}  // namespace ravu::opencl
