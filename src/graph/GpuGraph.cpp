// Sizes in clDNN's words.
#include "graph/GpuGraph.h"

#include <algorithm>

namespace ravu {

std::int32_t to_size(std::int64_t size) {
  return static_cast<std::int32_t>(std::clamp<std::int64_t>(size, 0, kMaxCount));
}

cldnn_tensor no_padding() {
  return {1, 1, 2, {}};
}

cldnn_tensor make_tensor(std::int32_t batch, std::int32_t feature, std::int32_t x, std::int32_t y) {
  return {1, 1, 2, {batch, feature, x, y, 1, 1, 1, 1}};
}

cldnn_layout make_layout(const GpuShape& shape, std::uint32_t data_type) {
  cldnn_layout layout{};
  layout.data_type = data_type;
  layout.format = shape.format;
  layout.size = make_tensor(shape.batch, shape.feature, shape.x, shape.y);
  layout.padding.lower = layout.padding.upper = no_padding();
  return layout;
}

GpuShape shape_of(const Shape& shape) {
  return {to_size(shape.dims[0]), to_size(shape.dims[3]), to_size(shape.dims[2]),
          to_size(shape.dims[1]), CLDNN_FORMAT_YXFB};
}

}  // namespace ravu
