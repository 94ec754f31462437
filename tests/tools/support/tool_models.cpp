// Small models as the tests of the program need them.
#include "support/tool_models.h"

namespace ravu::test {
namespace {

Dictionary kernel_set(int inputs, int outputs, int size, int padding, unsigned seed) {
  const auto values = random_values(static_cast<std::size_t>(inputs * outputs * size * size), seed);
  return Dictionary()
      .add("spec", Dictionary().add("num_kernels", outputs).add("stride", 1).add("ksize", size))
      .add("padding", padding)
      .add("has_bias", 1)
      .add("kernels", tensor({outputs, size, size, inputs}, values))
      .add("bias", tensor({1, 1, 1, outputs}, std::vector<float>(outputs, 0.5F)));
}

Dictionary fully_connected(const char* input, const char* output, int features, int outputs,
                           const std::vector<float>& weights) {
  return layer("neuron", {input}, {output})
      .add("spec", Dictionary().add("num_output", outputs))
      .add("has_bias", 0)
      .add("weight", tensor({features, outputs, 1, 1}, weights));
}

}  // namespace

ModelBuilder colour_model() {
  std::vector<float> weights;
  for (int feature = 0; feature < 12; ++feature) {
    for (int output = 0; output < 3; ++output) {
      weights.push_back(feature % 3 == output ? 1.0F / (255 * 4) : 0.0F);
    }
  }
  return ModelBuilder(2, 3)
      .set("label_names", texts({"red", "green", "blue"}))
      .add_layer(fully_connected("data", "scores", 12, 3, weights));
}

ModelBuilder brightness_model() {
  std::vector<float> weights;
  for (int feature = 0; feature < 4; ++feature) {
    weights.insert(weights.end(), {1.0F / (255 * 4), -1.0F / (255 * 4)});
  }
  return ModelBuilder(2, 1).add_layer(layer("neuron", {"data"}, {"scores"})
                                          .add("spec", Dictionary().add("num_output", 2))
                                          .add("has_bias", 1)
                                          .add("bias", tensor({1, 1, 1, 2}, {0, 1}))
                                          .add("weight", tensor({4, 2, 1, 1}, weights)));
}

ModelBuilder small_network() {
  Dictionary conv = kernel_set(3, 4, 3, 1, 1);
  conv.add("class", "conv").add("input_layers", texts({"data"}));
  conv.add("output_layers", texts({"conv1"}));
  const auto grouped =
      layer("gconv", {"pool1"}, {"conv2"})
          .add("layers_count", 2)
          .add("layers", list({kernel_set(2, 3, 1, 0, 2), kernel_set(2, 3, 1, 0, 3)}));
  return ModelBuilder(8, 3)
      .add_layer(conv)
      .add_layer(layer("relu", {"conv1"}, {"conv1"}))
      .add_layer(
          layer("pool", {"conv1"}, {"pool1"}).add("psize", 2).add("stride", 2).add("mode", "max"))
      .add_layer(grouped)
      .add_layer(fully_connected("conv2", "fc", 96, 5, random_values(96 * 5, 4)))
      .add_layer(layer("max", {"fc"}, {"prob"}));
}

}  // namespace ravu::test
