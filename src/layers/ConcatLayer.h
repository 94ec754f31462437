// Joins the channels of all inputs, pixel by pixel.
#pragma once

#include <optional>

#include "graph/BaseLayer.h"

namespace ravu {

class ConcatLayer : public BaseLayer {
 public:
  std::uint32_t axis = 3;  // counts the dims: channels

  bool Forward(std::uint32_t mode) override;
  void AddPrimitives(cldnn_topology_impl* topology, cldnn_engine_impl* engine,
                     std::uint32_t data_type, Aliases& aliases) override;
  void Reshape() override;
};

// The reference's dims with the sum of the inputs' channels; the count is the sum of their counts,
// whatever the dims say. None when a sum is too large.
std::optional<Shape> concat_shape(const ConcatLayer& layer, const Shape& reference);

Fit fits(const ConcatLayer& layer);

}  // namespace ravu
