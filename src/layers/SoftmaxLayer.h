// Softmax over the channels of each pixel, or over the plane of each one-channel image.
#pragma once

#include "graph/BaseLayer.h"

namespace ravu {

class SoftmaxLayer : public BaseLayer {
 public:
  bool Forward(std::uint32_t mode) override;
  void AddPrimitives(cldnn_topology_impl* topology, cldnn_engine_impl* engine,
                     std::uint32_t data_type, Aliases& aliases) override;
  void Reshape() override;
};

Fit fits(const SoftmaxLayer& layer);

}  // namespace ravu
