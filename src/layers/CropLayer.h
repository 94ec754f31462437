// The centre crop that the loader puts in front of a network whose images are smaller than its
// input. It has no record in the model file.
#pragma once

#include "graph/BaseLayer.h"

namespace ravu {

class CropLayer : public BaseLayer {
 public:
  static constexpr std::uint32_t kType = 5;

  CropLayer() { type = kType; }

  // Sizes of one image, dims (height, width, channels, 1).
  Shape input_record;
  Shape reference_record;
  std::int32_t column_offset = 0, row_offset = 0;

  // Cuts image_size x image_size pixels out of input_size x input_size.
  void place_in_centre(std::int32_t input_size, std::int32_t image_size, std::int32_t channels,
                       std::uint32_t layout);

  bool Forward(std::uint32_t mode) override;
  void AddPrimitives(cldnn_topology_impl* topology, cldnn_engine_impl* engine,
                     std::uint32_t data_type, Aliases& aliases) override;
  void Reshape() override;
};

Fit fits(const CropLayer& layer);

}  // namespace ravu
