// Pooling: the maximum or the average of each channel over square windows.
#pragma once

#include <optional>

#include "graph/BaseLayer.h"

namespace ravu {

class PoolingLayer : public BaseLayer {
 public:
  static constexpr std::uint32_t kMax = 0;
  static constexpr std::uint32_t kAverage = 1;

  std::uint32_t stride_h = 0, stride_w = 0;
  std::uint32_t pad_h = 0, pad_w = 0;
  std::uint32_t kernel_h = 0, kernel_w = 0;
  std::uint32_t mode = kMax;

  bool Forward(std::uint32_t run_mode) override;
  void AddPrimitives(cldnn_topology_impl* topology, cldnn_engine_impl* engine,
                     std::uint32_t data_type, Aliases& aliases) override;
  void Reshape() override;
};

// Sizes round up: a window that the input only partly fills counts. None when a stride is 0 or a
// size would be negative or too large.
std::optional<Shape> pooling_shape(const PoolingLayer& layer, const Shape& input);

Fit fits(const PoolingLayer& layer);

}  // namespace ravu
