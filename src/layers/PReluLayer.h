// Rectifier with a learned slope per channel for negative values.
#pragma once

#include "graph/BaseLayer.h"

namespace ravu {

class PReluLayer : public BaseLayer {
 public:
  BlobPtr slopes;
  // Kept: stored, but no computation looks at it; there is always one slope per channel.
  bool channel_shared = false;

  PReluLayer();

  bool Forward(std::uint32_t mode) override;
  void AddPrimitives(cldnn_topology_impl* topology, cldnn_engine_impl* engine,
                     std::uint32_t data_type, Aliases& aliases) override;
  void Reshape() override;
  void ReleaseWeights() override;
};

Fit fits(const PReluLayer& layer);

}  // namespace ravu
