// Scale and optional shift by learned tensors that repeat along the data: one value per channel,
// or larger ones over whole pixels or images.
#pragma once

#include "graph/BaseLayer.h"

namespace ravu {

class ScaleLayer : public BaseLayer {
 public:
  bool has_bias = false;
  BlobPtr scales;
  BlobPtr bias;  // null without bias

  ScaleLayer();

  bool Forward(std::uint32_t mode) override;
  void AddPrimitives(cldnn_topology_impl* topology, cldnn_engine_impl* engine,
                     std::uint32_t data_type, Aliases& aliases) override;
  bool Setup(std::int32_t mode, std::vector<BlobPtr>& params) override;
  void Reshape() override;
  void ReleaseWeights() override;
};

Fit fits(const ScaleLayer& layer);

}  // namespace ravu
