// Rectifier with an optional slope for negative values. Its output shares its input's storage.
#pragma once

#include "graph/BaseLayer.h"

namespace ravu {

class ReluLayer : public BaseLayer {
 public:
  float negative_slope = 0.0F;

  ReluLayer();

  bool Forward(std::uint32_t mode) override;
  void AddPrimitives(cldnn_topology_impl* topology, cldnn_engine_impl* engine,
                     std::uint32_t data_type, Aliases& aliases) override;
  bool Setup(std::int32_t mode, std::vector<BlobPtr>& params) override;
  void Reshape() override;
};

Fit fits(const ReluLayer& layer);

}  // namespace ravu
