// Exchanges the axes of each image: row, column and channel. The Blob keeps its shape; only the
// values move. A permutation that moves nothing borrows its input's storage.
#pragma once

#include <array>

#include "graph/BaseLayer.h"

namespace ravu {

class PermuteLayer : public BaseLayer {
 public:
  bool need_permute = false;
  // For each output axis the input's: 0 row, 1 column, 2 channel; 3 is the batch, which stays the
  // outermost axis wherever its entry stands.
  std::array<std::uint32_t, 4> order{0, 1, 2, 3};

  bool Forward(std::uint32_t mode) override;
  void AddPrimitives(cldnn_topology_impl* topology, cldnn_engine_impl* engine,
                     std::uint32_t data_type, Aliases& aliases) override;
  bool Setup(std::int32_t mode, std::vector<BlobPtr>& params) override;
  void Reshape() override;
};

// Whether the processor moves values: the flag is set and the order is not 0, 1, 2, 3.
bool moves_values(const PermuteLayer& layer);

Fit fits(const PermuteLayer& layer);

}  // namespace ravu
