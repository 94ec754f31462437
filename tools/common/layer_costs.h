// What a layer holds and what it computes, for people: parameters and multiply-adds.
#pragma once

#include <cstdint>
#include <string>

#include "graph/BaseLayer.h"

namespace ravu::tools {

struct LayerCosts {
  std::uint64_t parameters = 0;     // learned values
  std::uint64_t multiply_adds = 0;  // of one pass over the whole batch
};

// The multiply-adds are those of the sums that define the layer, however they are computed, and
// only of convolutions and fully connected layers; other layers count as 0.
LayerCosts layer_costs(const BaseLayer& layer);

// The keyword of the layer's class in a model file ("conv"); "crop" for the crop at the input.
std::string layer_class(const BaseLayer& layer);

// How run mode 0 computes a convolution that has been set up for it ("direct", "winograd",
// "depthwise", "gather"); empty for layers that have only one form.
std::string layer_kernel(const BaseLayer& layer);

}  // namespace ravu::tools
