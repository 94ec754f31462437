// Prior boxes: a fixed set of boxes for every cell of a feature map, in parts of the image's size,
// for the detection output layer. They depend on sizes alone and are computed in Setup.
#pragma once

#include <optional>
#include <vector>

#include "graph/BaseLayer.h"

namespace ravu {

class PriorBoxLayer : public BaseLayer {
 public:
  std::vector<float> aspect_ratios;      // width / height, used as stored; 1 is skipped
  std::vector<float> max_sizes;          // one for each min size, or none
  std::vector<float> min_sizes;          // box sides in image pixels
  std::vector<float> variances;          // one for all, or four in the order x, y, width, height
  std::uint32_t num_priors = 0;          // boxes per cell that the output has room for
  bool flip = false;                     // for the GPU only
  bool clip = false;                     // keep coordinates within 0 and 1
  std::uint32_t img_h = 0, img_w = 0;    // image pixels; one of them 0: those of the second input
  std::uint32_t step_h = 0, step_w = 0;  // pixels from cell to cell; one of them 0: derived
  float offset = 0.0F;                   // of a box's centre within its cell, in cells

  void AddPrimitives(cldnn_topology_impl* topology, cldnn_engine_impl* engine,
                     std::uint32_t data_type, Aliases& aliases) override;
  bool Setup(std::int32_t mode, std::vector<BlobPtr>& params) override;

  // The output stays as it is: priors do not depend on the batch.
  void Reshape() override;
};

// Two rows, 1 x 2 x 1 x P: the boxes (xmin, ymin, xmax, ymax) and their variances. None when P, the
// cells of the feature map times num_priors times 4, would be too large.
std::optional<Shape> prior_box_shape(const PriorBoxLayer& layer, const Shape& feature_map,
                                     std::uint32_t layout);

Fit fits(const PriorBoxLayer& layer);

}  // namespace ravu
