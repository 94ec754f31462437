// Batch normalisation with stored statistics: (x - mean) / divisor for each channel.
#pragma once

#include <vector>

#include "graph/BaseLayer.h"

namespace ravu {

class BatchNormLayer : public BaseLayer {
 public:
  float moving_average_fraction = 0.0F;  // kept for the file's sake; no computation uses it
  float epsilon = 0.0F;                  // used on the GPU only
  bool global_statistics = true;
  // One value per channel. Kept: the divisor, the record's "var", is a standard deviation, not a
  // variance; the processor adds no epsilon and takes no square root.
  BlobPtr mean;
  BlobPtr divisor;
  std::vector<float> reciprocals;  // 1 / divisor, made by Setup

  BatchNormLayer();

  bool Forward(std::uint32_t mode) override;
  void AddPrimitives(cldnn_topology_impl* topology, cldnn_engine_impl* engine,
                     std::uint32_t data_type, Aliases& aliases) override;
  bool Setup(std::int32_t mode, std::vector<BlobPtr>& params) override;
  void Reshape() override;

  // Releases mean and divisor. A slot of this class alone; ReleaseWeights leaves them.
  virtual void ReleaseStatistics();
};

Fit fits(const BatchNormLayer& layer);

}  // namespace ravu
