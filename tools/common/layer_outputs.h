// What every layer of a model gives out in a run, in any run mode.
#pragma once

#include <array>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "graph/ravuGraph.h"
#include "model/tag_reader.h"

namespace ravu::tools {

struct LayerOutput {
  std::string class_name;
  std::string name;          // of the layer's last output; empty when it has none
  std::uint32_t writer = 0;  // how many layers before it write that Blob
  std::array<std::uint32_t, 4> shape{};
  std::vector<float> values;
  std::string problem;  // why there are no values; empty where there are
};

// A model file in memory.
struct ModelSource {
  std::string path;
  FileImage image;
  bool channel_mean = false;
};

// Throws Failure.
std::unique_ptr<Network> open_model(const ModelSource& model);

// Runs the model once on the input, which has as many values as the model's, and returns what each
// layer, in execution order, leaves in its last output before the next one runs. On a GPU, where a
// run brings back one result, each layer is the end of a network of its own: those layers that it
// needs. Throws Failure, which names the layer when only that one is refused.
std::vector<LayerOutput> layer_outputs(const ModelSource& model, std::uint32_t mode,
                                       const std::vector<float>& input);

}  // namespace ravu::tools
