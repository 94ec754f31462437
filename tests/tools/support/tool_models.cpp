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

// Scores of the classes nothing, red, green and blue for each of four pixels.
std::vector<float> channel_scores() {
  std::vector<float> weights;
  for (int feature = 0; feature < 12; ++feature) {
    for (int output = 0; output < 16; ++output) {
      const bool same_pixel = feature / 3 == output / 4;
      weights.push_back(same_pixel && feature % 3 == output % 4 - 1 ? 1.0F / 255 : 0.0F);
    }
  }
  return weights;
}

// A square of one pixel in each cell.
Dictionary unit_priors() {
  return layer("priorbox", {"data", "data"}, {"priors"})
      .add("offset", 0.5F)
      .add("flip", 0)
      .add("num_priors", 1)
      .add("clip", 0)
      .add("img_h", 0)
      .add("img_w", 0)
      .add("step_h", 0)
      .add("step_w", 0)
      .add("aspect_ratios", small_floats({}))
      .add("variance", small_floats({1}))
      .add("min_size", small_floats({1}))
      .add("max_size", small_floats({}));
}

Dictionary detections(int keep_top_k) {
  return layer("detectionout", {"locations", "scores", "priors"}, {"found"})
      .add("num_classes", 4)
      .add("share_location", 1)
      .add("num_loc_classes", 1)
      .add("background_label_id", 0)
      .add("code_type", 2)
      .add("variance_encoded_in_target", 1)
      .add("top_k", -1)
      .add("keep_top_k", keep_top_k)
      .add("confidence_threshold", 0.01F)
      .add("nms_threshold", 0.45F)
      .add("eta", 1.0F);
}

ModelBuilder quarter_detector(int input_size, int keep_top_k) {
  return ModelBuilder(input_size, 3)
      .set("image_size", integer(2))
      .set("label_names", texts({"nothing", "red", "green", "blue"}))
      .add_layer(fully_connected("data", "locations", 12, 16, std::vector<float>(12 * 16, 0.0F)))
      .add_layer(fully_connected("data", "scores", 12, 16, channel_scores()))
      .add_layer(unit_priors())
      .add_layer(detections(keep_top_k));
}

}  // namespace

ModelBuilder quarter_detector(int input_size) {
  return quarter_detector(input_size, /*keep_top_k=*/12);
}

ModelBuilder quarter_detector_of_rows(int keep_top_k) {
  return quarter_detector(/*input_size=*/2, keep_top_k);
}

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
