// Combines inputs of equal shape element by element.
#pragma once

#include <vector>

#include "graph/BaseLayer.h"

namespace ravu {

class EltWiseLayer : public BaseLayer {
 public:
  // clDNN's mode numbers.
  static constexpr std::int32_t kSum = 0;
  static constexpr std::int32_t kMax = 2;
  static constexpr std::int32_t kProduct = 3;

  std::int32_t operation = kMax;
  std::vector<float> coefficients;  // of the sum, one for each input

  EltWiseLayer() { takes_steps = true; }

  bool Forward(std::uint32_t mode) override;
  void AddPrimitives(cldnn_topology_impl* topology, cldnn_engine_impl* engine,
                     std::uint32_t data_type, Aliases& aliases) override;
  void Reshape() override;
  void ReleaseWeights() override;
};

Fit fits(const EltWiseLayer& layer);

}  // namespace ravu
