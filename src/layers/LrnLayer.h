// Local response normalisation: each value is divided by the energy of its neighbouring channels at
// the same pixel, y = x * (k + alpha / size * sum of squares)^-beta.
#pragma once

#include "graph/BaseLayer.h"

namespace ravu {

class LrnLayer : public BaseLayer {
 public:
  std::uint32_t size = 0;  // channels of a window that is centred on the value's own channel
  float alpha = 0.0F;
  float beta = 0.0F;
  float k = 0.0F;
  Blob* scale = nullptr;  // the denominators of the last run, in the network's parameter list

  bool Forward(std::uint32_t mode) override;
  void AddPrimitives(cldnn_topology_impl* topology, cldnn_engine_impl* engine,
                     std::uint32_t data_type, Aliases& aliases) override;
  bool Setup(std::int32_t mode, std::vector<BlobPtr>& params) override;
  void Reshape() override;
  void ReleaseWeights() override;
};

Fit fits(const LrnLayer& layer);

}  // namespace ravu
