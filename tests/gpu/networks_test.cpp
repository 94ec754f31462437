// Whole networks on the provider, compared with the processor.
#include <gtest/gtest.h>

#include <fstream>
#include <iterator>

#include "gpu/modes.h"
#include "support/records.h"

namespace ravu::test {
namespace {

Bytes file_of(const std::string& name) {
  std::ifstream file(std::string(RAVU_MODELS_FOLDER) + "/" + name, std::ios::binary);
  if (!file) throw std::runtime_error("no model " + name);
  return Bytes(std::istreambuf_iterator<char>(file), {});
}

// Bytes of an image as an input wants them: 0 to 255.
std::vector<float> pixels_for(Dims dims, unsigned seed) {
  auto values = input_for(dims, seed);
  for (float& value : values) value = (value + 1) * 127.5F;
  return values;
}

TEST(GpuNetwork, AClassifierAgrees) {
  ModelBuilder model(12, 3);
  model.set("data_mean", random_tensor({1, 12, 12, 3}, 9));
  model.add_layer(conv_record("data", "c1", {.inputs = 3, .kernels = 8, .padding = 1}, 1));
  model.add_layer(relu_record("c1", "c1"));
  model.add_layer(pool_record("c1", "p1", "max", 2, 2));
  model.add_layer(conv_record("p1", "c2", {.inputs = 8, .kernels = 12, .padding = 1}, 3));
  model.add_layer(relu_record("c2", "r2"));
  model.add_layer(pool_record("r2", "p2", "avg", 3, 2));
  model.add_layer(neuron_record("p2", "f1", 108, 20, 5));
  model.add_layer(relu_record("f1", "f1"));
  model.add_layer(neuron_record("f1", "f2", 20, 7, 7));
  model.add_layer(layer("max", {"f2"}, {"s"}));
  for (const std::uint32_t batch : {1U, 2U, 3U}) {
    expect_modes_agree(model, {batch, 12, 12, 3}, "batch " + std::to_string(batch));
  }
}

// A convolution with batch normalisation and scale, all in place.
void add_normalised(ModelBuilder& model, const std::string& from, const std::string& to,
                    const ConvKeys& keys, unsigned seed) {
  model.add_layer(conv_record(from, to, keys, seed));
  model.add_layer(bn_record(to, to, keys.kernels, seed + 2));
  model.add_layer(scale_record(to, to, {1, 1, 1, keys.kernels}, true, seed + 4));
}

TEST(GpuNetwork, AResidualNetworkAgrees) {
  ModelBuilder model(10, 4);
  add_normalised(model, "data", "a", {.inputs = 4, .kernels = 6, .padding = 1, .bias = false}, 1);
  model.add_layer(relu_record("a", "a"));
  add_normalised(model, "a", "b", {.inputs = 6, .kernels = 6, .padding = 1, .bias = false}, 11);
  model.add_layer(relu_record("b", "b"));
  add_normalised(model, "b", "c", {.inputs = 6, .kernels = 6, .padding = 1, .bias = false}, 21);
  model.add_layer(eltwise_record({"a", "c"}, "e", "sum"));
  model.add_layer(relu_record("e", "e"));
  add_normalised(model, "e", "d", {.inputs = 6, .kernels = 9, .stride = 2, .padding = 1}, 31);
  add_normalised(model, "e", "s", {.inputs = 6, .kernels = 9, .ksize = 1, .stride = 2}, 41);
  model.add_layer(eltwise_record({"d", "s"}, "d", "sum"));
  model.add_layer(relu_record("d", "d"));
  model.add_layer(pool_record("d", "g", "avg", 5, 1));
  model.add_layer(neuron_record("g", "scores", 9, 5, 51));
  for (const std::uint32_t batch : {1U, 2U}) {
    expect_modes_agree(model, {batch, 10, 10, 4}, "batch " + std::to_string(batch));
  }
}

TEST(GpuNetwork, AGroupedNetworkWithLocalResponseNormalisationAgrees) {
  ModelBuilder model(11, 3);
  model.add_layer(
      conv_record("data", "c", {.inputs = 3, .kernels = 8, .ksize = 3, .stride = 2}, 1));
  model.add_layer(relu_record("c", "c"));
  model.add_layer(lrn_record("c", "n", 5));
  model.add_layer(group_record("n", "g", 2, {.inputs = 4, .kernels = 6, .padding = 1}, 3));
  model.add_layer(relu_record("g", "g"));
  model.add_layer(neuron_record("g", "f", 300, 10, 5));
  model.add_layer(layer("max", {"f"}, {"s"}));
  for (const std::uint32_t batch : {1U, 2U}) {
    expect_modes_agree(model, {batch, 11, 11, 3}, "batch " + std::to_string(batch));
  }
}

TEST(GpuNetwork, ADepthwiseNetworkAgrees) {
  ModelBuilder model(12, 3);
  add_normalised(model, "data", "a", {.inputs = 3, .kernels = 8, .stride = 2, .padding = 1}, 1);
  model.add_layer(relu_record("a", "a"));
  model.add_layer(group_record("a", "d", 8, {.inputs = 1, .kernels = 1, .padding = 1}, 11));
  model.add_layer(bn_record("d", "d", 8, 12));
  model.add_layer(relu_record("d", "d"));
  add_normalised(model, "d", "p", {.inputs = 8, .kernels = 16, .ksize = 1}, 21);
  model.add_layer(prelu_record("p", "p", 16, 27));
  model.add_layer(pool_record("p", "g", "avg", 6, 1));
  model.add_layer(conv_record("g", "scores", {.inputs = 16, .kernels = 5, .ksize = 1}, 31));
  model.add_layer(layer("flatten", {"scores"}, {"flat"}));
  model.add_layer(layer("max", {"flat"}, {"s"}));
  for (const std::uint32_t batch : {1U, 3U}) {
    expect_modes_agree(model, {batch, 12, 12, 3}, "batch " + std::to_string(batch));
  }
}

TEST(GpuNetwork, LayersBehindAFullyConnectedOneAgree) {
  ModelBuilder model(3, 2);
  model.add_layer(neuron_record("data", "f", 18, 6, 1));
  model.add_layer(bn_record("f", "f", 6, 3));
  model.add_layer(scale_record("f", "s", {1, 1, 1, 6}, true, 5));
  model.add_layer(prelu_record("s", "s", 6, 7));
  model.add_layer(neuron_record("data", "g", 18, 6, 9));
  model.add_layer(eltwise_record({"s", "g"}, "e", "sum"));
  model.add_layer(layer("concat", {"e", "g"}, {"j"}));
  model.add_layer(layer("max", {"j"}, {"p"}));
  model.add_layer(prelu_record("p", "q", 12, 11));
  for (const std::uint32_t batch : {1U, 2U}) {
    expect_modes_agree(model, {batch, 3, 3, 2}, "batch " + std::to_string(batch));
  }
}

TEST(GpuNetwork, TheDemoClassifierAgrees) {
  const Bytes model = file_of("characters/characters.ravu");
  const auto network = load(model).network;
  ASSERT_NE(network, nullptr);
  Dims input = network->input->dims;
  for (const std::uint32_t batch : {1U, 2U}) {
    input[0] = batch;
    const auto pixels = pixels_for(input, batch);
    const Result reference = result_in(RAVU_MODE_CPU, model, input, pixels);
    for (const std::uint32_t mode : {RAVU_MODE_GPU, RAVU_MODE_GPU_KEEP}) {
      EXPECT_LE(distance(reference, result_in(mode, model, input, pixels)), kTolerance);
    }
  }
}

// A picture with something on it: bright rectangles on noise.
std::vector<float> scene(Dims dims, unsigned seed) {
  auto pixels = pixels_for(dims, seed);
  for (std::size_t i = 0; i < pixels.size(); ++i) {
    const std::size_t pixel = i / dims[3];
    const std::size_t x = pixel % dims[2];
    const std::size_t y = pixel / dims[2] % dims[1];
    pixels[i] *= 0.3F;
    if (x % 64 > 16 && x % 64 < 44 && y % 64 > 16 && y % 64 < 44 && i % dims[3] == 0) {
      pixels[i] = 220;
    }
  }
  return pixels;
}

// Labels and order are the same, boxes and scores within 1e-4.
TEST(GpuNetwork, TheDemoDetectorAgrees) {
  const Bytes model = file_of("signs/signs.ravu");
  const auto network = load(model).network;
  ASSERT_NE(network, nullptr);
  Dims input = network->input->dims;
  for (const std::uint32_t batch : {1U, 2U}) {
    input[0] = batch;
    const auto pixels = scene(input, batch);
    const Result reference = result_in(RAVU_MODE_CPU, model, input, pixels);
    ASSERT_NE(reference.values[2], 0) << "the scene holds nothing";
    for (const std::uint32_t mode : {RAVU_MODE_GPU, RAVU_MODE_GPU_KEEP}) {
      const Result found = result_in(mode, model, input, pixels);
      ASSERT_EQ(found.values.size(), reference.values.size());
      for (std::size_t i = 0; i < found.values.size(); ++i) {
        EXPECT_NEAR(found.values[i], reference.values[i], i % 7 < 2 ? 0 : 1e-4)
            << "mode " << mode << ", value " << i;
      }
    }
  }
}

}  // namespace
}  // namespace ravu::test
