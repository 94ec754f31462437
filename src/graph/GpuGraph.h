// What is known about a network while it is turned into clDNN's primitives, and afterwards.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "graph/Blob.h"
#include "graph/cldnn_library.h"

namespace ravu {

// The sizes of a primitive's output as clDNN has them; x runs along the width. They may be another
// view of the values than the Blob's: a fully connected layer's outputs lie along x.
struct GpuShape {
  std::int32_t batch = 1;
  std::int32_t feature = 1;
  std::int32_t x = 1;
  std::int32_t y = 1;
  std::int32_t format = CLDNN_FORMAT_YXFB;
};

inline bool operator==(const GpuShape& a, const GpuShape& b) {
  return a.batch == b.batch && a.feature == b.feature && a.x == b.x && a.y == b.y &&
         a.format == b.format;
}

// A size as clDNN holds it; what is negative or too large becomes 0 or the largest size there is.
std::int32_t to_size(std::int64_t size);

// A tensor that pads nothing.
cldnn_tensor no_padding();

// A tensor of these sizes, ones in its unused entries.
cldnn_tensor make_tensor(std::int32_t batch, std::int32_t feature, std::int32_t x, std::int32_t y);

cldnn_layout make_layout(const GpuShape& shape, std::uint32_t data_type);

// The sizes that the dims of a Blob mean.
GpuShape shape_of(const Shape& shape);

struct GpuGraph {
  const cldnn::Library* library = nullptr;
  std::map<std::string, GpuShape> shapes;  // of every primitive added, by its identifier
  const std::map<std::string, Blob*, std::less<>>* blobs = nullptr;  // names kept for layers
  std::vector<Blob*> counted_down;  // each one's consumers were decremented, once for each entry

  // Whether an identifier is in use, or is the name of a Blob and so may be wanted later.
  bool is_taken(const std::string& id) const {
    return shapes.count(id) != 0 || (blobs != nullptr && blobs->count(id) != 0);
  }
};

}  // namespace ravu
