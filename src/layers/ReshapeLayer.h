// Gives its input other dims. Nothing moves: the output borrows the input's storage.
// Kept: there is no shape rule of its own for later input shapes; after a change of the batch the
// output has the input's whole shape.
#pragma once

#include <array>

#include "graph/BaseLayer.h"

namespace ravu {

class ReshapeLayer : public BaseLayer {
 public:
  std::int32_t constant_count = 0;
  std::array<std::int32_t, 4> dims{-1, -1, -1, -1};  // only positive entries replace a dimension
  std::int32_t inferred_axis = -1;  // the dimension that gets the rest; below 0: none

  void AddPrimitives(cldnn_topology_impl* topology, cldnn_engine_impl* engine,
                     std::uint32_t data_type, Aliases& aliases) override;
  bool Setup(std::int32_t mode, std::vector<BlobPtr>& params) override;
};

// The shape of a model record. Kept: the inferred dimension is the count divided by the replaced
// dimensions alone, so the dims may multiply to more than the count, which stays the input's.
Shape reshape_record_shape(const ReshapeLayer& layer, const Shape& input);

Fit fits(const ReshapeLayer& layer);

}  // namespace ravu
