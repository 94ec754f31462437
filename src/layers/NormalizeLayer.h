// L2 normalisation: the channels of each pixel are divided by their Euclidean length and multiplied
// by learned values.
#pragma once

#include "graph/BaseLayer.h"

namespace ravu {

class NormalizeLayer : public BaseLayer {
 public:
  bool across_spatial = false;  // one norm per image; the processor then writes no output
  bool channel_shared = false;  // the first scale value serves all channels
  BlobPtr scale;
  float epsilon = 0.0F;  // for the GPU only; no model sets it
  // In the network's parameter list, where layers of equal shapes share them:
  Blob* squares = nullptr;
  Blob* norms = nullptr;  // one per pixel, or per image; cleared when the network gets new input

  bool Forward(std::uint32_t mode) override;
  void AddPrimitives(cldnn_topology_impl* topology, cldnn_engine_impl* engine,
                     std::uint32_t data_type, Aliases& aliases) override;
  bool Setup(std::int32_t mode, std::vector<BlobPtr>& params) override;
  void ReleaseWeights() override;
};

Fit fits(const NormalizeLayer& layer);

}  // namespace ravu
