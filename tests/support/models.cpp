// The smallest models that show what a test needs.
#include "support/models.h"

namespace ravu::test {

Dictionary neuron(const char* input, const char* output, int features, int outputs,
                  const std::vector<float>& weights, const std::vector<float>& bias) {
  return layer("neuron", {input}, {output})
      .add("spec", Dictionary().add("num_output", outputs))
      .add("weight", tensor({features, outputs, 1, 1}, weights))
      .add("has_bias", 1)
      .add("bias", tensor({1, 1, 1, outputs}, bias));
}

ModelBuilder input_only(int size, int channels) {
  return ModelBuilder(size, channels).set("layers", list({}));
}

ModelBuilder small_classifier() {
  ModelBuilder model(2, 1);
  model.add_layer(layer("relu", {"data"}, {"rectified"}));
  model.add_layer(
      layer("pool", {"rectified"}, {"pooled"}).add("psize", 2).add("stride", 2).add("mode", "max"));
  model.add_layer(neuron("pooled", "scores", 1, 2, {1, 2}, {1, 5}));
  model.set("label_names", texts({"cat", "dog"}));
  return model;
}

}  // namespace ravu::test
