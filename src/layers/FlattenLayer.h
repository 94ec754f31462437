// Shows each image's elements as channels of one pixel. Nothing moves: the output borrows the
// input's storage.
#pragma once

#include <optional>

#include "graph/BaseLayer.h"

namespace ravu {

class FlattenLayer : public BaseLayer {
 public:
  void AddPrimitives(cldnn_topology_impl* topology, cldnn_engine_impl* engine,
                     std::uint32_t data_type, Aliases& aliases) override;
  bool Setup(std::int32_t mode, std::vector<BlobPtr>& params) override;
  void Reshape() override;
};

// (batch, 1, 1, count / batch); none for a batch of 0.
std::optional<Shape> flatten_shape(const Shape& input);

Fit fits(const FlattenLayer& layer);

}  // namespace ravu
