// Fully connected: each image's whole input times a matrix, plus a bias. The one weight Blob is
// kept in the orientation that the run mode needs and is flipped in place when the mode changes.
#pragma once

#include <optional>

#include "graph/BaseLayer.h"
#include "graph/fixed_point_library.h"

namespace ravu {

class FullyConnectLayer : public BaseLayer {
 public:
  BlobPtr weights;
  BlobPtr bias;  // null without bias
  bool has_bias = false;
  // True: one row per output, dims (outputs, features). False: one row per feature.
  bool weights_transposed = false;
  FixedPointOperator fixed_point{nullptr, nullptr};  // null until set up for run mode 3

  bool Forward(std::uint32_t mode) override;
  void AddPrimitives(cldnn_topology_impl* topology, cldnn_engine_impl* engine,
                     std::uint32_t data_type, Aliases& aliases) override;
  bool Setup(std::int32_t mode, std::vector<BlobPtr>& params) override;
  void Reshape() override;
  void ReleaseWeights() override;
};

// Brings the weights, which are there, into an orientation: see weights_transposed.
void turn_weights(FullyConnectLayer& layer, bool transposed);

Fit fits(const FullyConnectLayer& layer);

}  // namespace ravu
