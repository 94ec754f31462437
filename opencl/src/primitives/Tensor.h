// Sizes, formats and where elements stand. A Tensor is the layout of unpadded single-precision
// values, which is all that primitives compute on.
#pragma once

#include <array>
#include <cstdint>
#include <string>

#include "cldnn/cldnn.h"

namespace ravu::opencl {

struct Tensor {
  int32_t format = CLDNN_FORMAT_YXFB;
  int64_t b = 1;
  int64_t f = 1;
  int64_t x = 1;
  int64_t y = 1;

  bool operator==(const Tensor&) const = default;
};

// Products that saturate far above every size that is accepted, so that hostile sizes do not wrap.
int64_t times(int64_t a, int64_t b);
int64_t count(const Tensor& tensor);
// The product of all eight sizes, 0 where one is not positive.
int64_t element_count(const cldnn_tensor& size);
// "2 x 3 x 4 x 5" as b, f, x, y.
std::string text(const Tensor& tensor);

bool is_padded(const cldnn_padding& padding);
bool same_layout(const cldnn_layout& a, const cldnn_layout& b);
// With the counts of sizes that outputs carry.
cldnn_layout normalised(cldnn_layout layout);
cldnn_layout layout_of(const Tensor& tensor);
// Refuses what no primitive computes on: other data types, weight formats, padding.
Tensor tensor_of(const cldnn_layout& layout);
// Sizes b, f, x, y; refuses a size whose unused entries are not 1.
Tensor sizes_of(const cldnn_tensor& size, int32_t format);

// The distance of neighbours along each dimension.
struct Strides {
  int64_t b, f, x, y;
};
Strides strides_of(const Tensor& tensor);

// Every format is a number of planes of rows of pixels of neighbouring values ("depth"):
// yxfb one plane with features and images in the depth, bfyx a plane per feature without depth.
struct Planes {
  int64_t planes, rows, columns, depth;
};
Planes planes_of(const Tensor& tensor);

// A value's feature is (index / run) % f: the number of neighbouring values of one feature.
int64_t feature_run(const Tensor& tensor);

// The four dimensions, slowest first; each is 'b', 'f', 'x' or 'y'.
std::array<char, 4> memory_order(int32_t format);
int64_t size_along(const Tensor& tensor, char dimension);
int64_t stride_along(const Strides& strides, char dimension);

}  // namespace ravu::opencl
