// What a layer holds and what it computes, for people: parameters and multiply-adds.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "graph/ravuGraph.h"

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

// How each layer of a network that has been set up for run mode 0 is computed: a convolution's form
// ("direct", "winograd", "winograd2", "depthwise", "gather"), "fused" for a layer that is computed
// by the one before it, empty for the others.
std::vector<std::string> layer_kernels(const Network& network);

}  // namespace ravu::tools
