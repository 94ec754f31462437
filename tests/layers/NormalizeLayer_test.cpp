// L2 normalisation: lengths, the scale's order, norms that add up, the shared scratch Blobs.
#include "layers/NormalizeLayer.h"

#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <random>

#include "api/handle.h"
#include "support/blobs.h"
#include "support/reference.h"

namespace ravu::test {
namespace {

NormalizeLayer& configure(NormalizeLayer& layer, const std::vector<float>& scale) {
  layer.channel_shared = scale.size() == 1;
  layer.scale = make_blob({static_cast<std::uint32_t>(scale.size()), 1, 1, 1}, scale);
  return layer;
}

// A layer on its Blobs, set up; the values of the input are given with each run.
struct Normalizer {
  Normalizer(Dims dims, const std::vector<float>& scale) : rig(configure(layer, scale)) {
    input = &rig.add_input(dims);
    output = &rig.add_output(dims);
    rig.set_up();
  }

  std::vector<float> run(const std::vector<float>& values) {
    assign(*input, values.data());
    return rig.run();
  }

  NormalizeLayer layer;
  LayerRig rig;
  Blob* input;
  Blob* output;
};

double length(const float* values, std::size_t n) {
  double sum = 0;
  for (std::size_t i = 0; i < n; ++i) sum += double{values[i]} * values[i];
  return std::sqrt(sum);
}

TEST(NormalizeLayerForward, WithASharedScaleOf20EachPixelGetsLength20) {
  Normalizer normalizer({2, 3, 4, 5}, {20.0F});
  const auto output = normalizer.run(random_values(120, 1));
  for (std::size_t p = 0; p < 24; ++p) EXPECT_NEAR(length(&output[p * 5], 5), 20.0, 1e-4);
}

TEST(NormalizeLayerForward, DividesByTheLengthOfEachPixel) {
  Normalizer normalizer({1, 1, 2, 2}, {2.0F});
  EXPECT_EQ(normalizer.run({3, 4, 6, 8}), (std::vector<float>{1.2F, 1.6F, 1.2F, 1.6F}));
  EXPECT_EQ(values_of(*normalizer.layer.norms), (std::vector<float>{5, 10}));
}

TEST(NormalizeLayerForward, ScaleValuesApplyToRunsOfOneImagePlaneEach) {
  Normalizer normalizer({1, 1, 3, 2}, {10.0F, 100.0F});
  // Three pixels: the first three values get the first scale, whatever their channel is.
  EXPECT_EQ(
      normalizer.run({3, 4, 3, 4, 3, 4}),
      (std::vector<float>{0.6F * 10, 0.8F * 10, 0.6F * 10, 0.8F * 100, 0.6F * 100, 0.8F * 100}));
}

TEST(NormalizeLayerForward, APixelOfZerosGivesNotANumber) {
  Normalizer normalizer({1, 1, 2, 2}, {1.0F});
  const auto output = normalizer.run({0, 0, 3, 4});
  EXPECT_TRUE(std::isnan(output[0]));
  EXPECT_TRUE(std::isnan(output[1]));
  EXPECT_EQ(output[2], 0.6F);
}

TEST(NormalizeLayerForward, ASecondRunAddsOntoTheNormsOfTheFirst) {
  Normalizer normalizer({1, 1, 1, 2}, {1.0F});
  EXPECT_EQ(normalizer.run({3, 4}), (std::vector<float>{0.6F, 0.8F}));
  const float norm = std::sqrt(5.0F + 9.0F + 16.0F);
  EXPECT_EQ(normalizer.run({3, 4}), (std::vector<float>{3 / norm, 4 / norm}));
}

TEST(NormalizeLayerForward, TheSecondOfTwoLayersThatShareNormsAddsOntoTheFirstOnes) {
  NormalizeLayer first, second;
  std::vector<BlobPtr> params;
  LayerRig a(configure(first, {1.0F})), b(configure(second, {1.0F}));
  for (LayerRig* rig : {&a, &b}) {
    rig->add_input({1, 1, 1, 2}, {3, 4});
    rig->add_output({1, 1, 1, 2});
    rig->layer.Setup(0, params);
  }
  EXPECT_EQ(a.run(), (std::vector<float>{0.6F, 0.8F}));
  const float norm = std::sqrt(30.0F);
  EXPECT_EQ(b.run(), (std::vector<float>{3 / norm, 4 / norm}));
}

TEST(NormalizeLayerForward, TheRootsOfLaterImagesAreTakenWithEachImage) {
  Normalizer normalizer({3, 1, 1, 2}, {1.0F});
  normalizer.run({3, 4, 3, 4, 3, 4});
  normalizer.run({3, 4, 3, 4, 3, 4});
  const float once = std::sqrt(5.0F);
  const float twice = std::sqrt(once);
  EXPECT_EQ(values_of(*normalizer.layer.norms),
            (std::vector<float>{std::sqrt(5.0F + 25), std::sqrt(once + 9 + 16),
                                std::sqrt(twice + 9 + 16)}));
}

TEST(NormalizeLayerForward, AcrossSpatialLeavesTheOutputAndComputesOneNormPerImage) {
  NormalizeLayer layer;
  configure(layer, {7.0F}).across_spatial = true;
  LayerRig rig(layer);
  rig.add_input({2, 1, 2, 1}, {3, 4, 6, 8});
  Blob& output = rig.add_output({2, 1, 2, 1});
  rig.set_up();
  const std::vector<float> before{1, 2, 3, 4};
  assign(output, before.data());
  EXPECT_EQ(rig.run(), before);
  EXPECT_EQ(layer.norms->dims, (Dims{2, 1, 1, 1}));
  EXPECT_EQ(values_of(*layer.norms), (std::vector<float>{5, 10}));
  rig.run();
  EXPECT_EQ(values_of(*layer.norms), (std::vector<float>{5, 10}));
}

TEST(NormalizeLayerForward, WorksInPlace) {
  NormalizeLayer layer;
  LayerRig rig(configure(layer, {1.0F}));
  layer.outputs.push_back(&rig.add_input({1, 1, 2, 2}, {3, 4, 6, 8}));
  rig.set_up();
  EXPECT_EQ(rig.run(), (std::vector<float>{0.6F, 0.8F, 0.6F, 0.8F}));
}

TEST(NormalizeLayerForward, AgreesBitForBitWithTheReferenceOverThreeRuns) {
  std::mt19937 random(53);
  const auto draw = [&](int low, int high) {
    return std::uniform_int_distribution<int>(low, high)(random);
  };
  for (int i = 0; i < 300; ++i) {
    const int height = draw(1, 6);
    const int width = draw(1, 6);
    // One channel is the case in which squares and norms are one Blob.
    const reference::Normalize n{draw(1, 4), height * width, draw(1, 3) == 1 ? 1 : draw(2, 40),
                                 draw(0, 1) == 0};
    const auto size = [](int value) { return static_cast<std::uint32_t>(value); };
    const std::size_t count = size(n.images * n.pixels * n.channels);
    const auto scale = random_values(n.channel_shared ? 1 : size(n.channels), 1000U + size(i));
    Normalizer normalizer({size(n.images), size(height), size(width), size(n.channels)}, scale);
    normalizer.layer.channel_shared = n.channel_shared;
    std::vector<float> squares(count), norms(size(n.images * n.pixels));
    for (unsigned run = 0; run < 3; ++run) {
      const auto input = random_values(count, 10U * size(i) + run);
      const auto expected =
          reference::normalize(n, input, scale, squares, n.channels == 1 ? squares : norms);
      ASSERT_EQ(bits_of(normalizer.run(input)), bits_of(expected)) << i << ", run " << run;
    }
  }
}

TEST(NormalizeLayerForward, ManyRootsStopAtOne) {
  Normalizer normalizer({200, 1, 1, 2}, {1.0F});
  std::vector<float> squares(400), norms(200);
  for (unsigned run = 0; run < 3; ++run) {
    const auto input = random_values(400, run);
    const auto expected = reference::normalize({200, 1, 2, true}, input, {1.0F}, squares, norms);
    EXPECT_EQ(normalizer.run(input), expected);
  }
}

TEST(NormalizeLayerSetup, LayersOfEqualShapesShareTheirScratchBlobs) {
  NormalizeLayer first, second;
  std::vector<BlobPtr> params;
  LayerRig a(configure(first, {1.0F})), b(configure(second, {1.0F}));
  a.add_input({2, 3, 4, 5});
  b.add_input({2, 3, 4, 7});
  first.Setup(0, params);
  second.Setup(0, params);
  EXPECT_NE(first.squares, second.squares);
  EXPECT_EQ(first.norms, second.norms);
  EXPECT_EQ(first.norms->dims, (Dims{2, 3, 4, 1}));
  EXPECT_EQ(params.size(), 3U);
}

TEST(NormalizeLayerForward, ReshapesScratchBlobsThatNoLongerFit) {
  Normalizer normalizer({1, 2, 2, 2}, {1.0F});
  reshape(*normalizer.layer.squares, *make_blob({1, 1, 1, 1}));
  reshape(*normalizer.layer.norms, *make_blob({1, 1, 1, 1}));
  EXPECT_EQ(normalizer.run({3, 4, 3, 4, 3, 4, 3, 4}),
            (std::vector<float>{0.6F, 0.8F, 0.6F, 0.8F, 0.6F, 0.8F, 0.6F, 0.8F}));
}

TEST(NormalizeLayerForward, LeavesTheOutputWhenOneBlobServedAsBothAndNoLongerCan) {
  Normalizer normalizer({1, 2, 2, 1}, {1.0F});
  ASSERT_EQ(normalizer.layer.squares, normalizer.layer.norms);
  reshape(*normalizer.input, *make_blob({1, 2, 2, 3}));
  reshape(*normalizer.output, *make_blob({1, 2, 2, 3}));
  EXPECT_EQ(normalizer.rig.run(), std::vector<float>(12, 0.0F));
}

TEST(NormalizeLayerShape, FollowsTheBatchAndNothingElse) {
  Normalizer normalizer({1, 2, 2, 2}, {1.0F});
  reshape(*normalizer.input, *make_blob({1, 3, 3, 2}));
  normalizer.layer.Reshape();
  EXPECT_EQ(normalizer.output->dims, (Dims{1, 2, 2, 2}));
  EXPECT_EQ(normalizer.rig.run(), std::vector<float>(8, 0.0F));  // too small now: left alone
  reshape(*normalizer.input, *make_blob({2, 3, 3, 2}));
  normalizer.layer.Reshape();
  EXPECT_EQ(normalizer.output->dims, (Dims{2, 3, 3, 2}));
  EXPECT_NEAR(length(normalizer.run(random_values(36, 1)).data() + 34, 2), 1.0, 1e-6);
}

TEST(NormalizeLayerReleaseWeights, DropsScaleAndScratchAndForwardLeavesTheOutput) {
  Normalizer normalizer({1, 1, 1, 2}, {1.0F});
  normalizer.rig.params.clear();
  normalizer.layer.ReleaseWeights();
  EXPECT_EQ(normalizer.layer.scale, nullptr);
  EXPECT_EQ(normalizer.layer.squares, nullptr);
  EXPECT_EQ(normalizer.layer.norms, nullptr);
  EXPECT_EQ(normalizer.run({3, 4}), std::vector<float>(2, 0.0F));
  normalizer.rig.set_up();
  EXPECT_EQ(normalizer.run({3, 4}), std::vector<float>(2, 0.0F));
}

TEST(NormalizeLayerFits, RefusesWhatWouldReadOrWriteOutOfRange) {
  NormalizeLayer layer;
  configure(layer, {1.0F, 2.0F, 3.0F});
  EXPECT_FALSE(fits(layer));  // no input
  LayerRig rig(layer);
  Blob& input = rig.add_input({1, 2, 2, 3});
  EXPECT_TRUE(fits(layer));
  Blob& output = rig.add_output({1, 2, 2, 3});
  output.count = 11;
  EXPECT_FALSE(fits(layer));
  output.count = 12;
  EXPECT_TRUE(fits(layer));
  input.dims = {1, 2, 2, 4};
  EXPECT_FALSE(fits(layer));
  for (const Dims dims : {Dims{0, 2, 2, 3}, Dims{1, 2, 2, 0}}) {
    input.dims = dims;
    EXPECT_FALSE(fits(layer));
  }
}

TEST(NormalizeLayerFits, RefusesAScaleWithFewerValuesThanChannels) {
  NormalizeLayer layer;
  configure(layer, {1.0F, 2.0F});
  LayerRig rig(layer);
  rig.add_input({1, 2, 2, 3});
  EXPECT_FALSE(fits(layer));
  layer.channel_shared = true;
  EXPECT_TRUE(fits(layer));
  layer.channel_shared = false;
  layer.across_spatial = true;
  EXPECT_TRUE(fits(layer));
  layer.scale.reset();
  EXPECT_FALSE(fits(layer));
}

// A network of one layer "norm" on an input of 1 x 1 x 1 x 2, driven through the exports.
struct NormNetwork {
  NormNetwork()
      : loaded(load_layer(layer("norm", {"data"}, {"out"})
                              .add("across_spatial", 0)
                              .add("channel_shared", 1)
                              .add("scale", tensor({1, 1, 1, 1}, {1.0F})),
                          1, 2)) {
    ravu_setup_runEngine(handle(), RAVU_MODE_CPU);
  }

  ravu_network* handle() { return to_handle(loaded.network.get()); }

  std::vector<float> forward() {
    ravu_forward(handle(), RAVU_MODE_CPU);
    return values_of(*loaded.layer->outputs.back());
  }

  LoadedLayer loaded;
  const std::vector<float> first{0.6F, 0.8F};
};

TEST(NormalizeLayerInNetwork, NewFloatInputClearsTheNorms) {
  NormNetwork network;
  const float pixels[] = {3, 4};
  for (int i = 0; i < 3; ++i) {
    ravu_set_InputData_byRawData_float(network.handle(), pixels, 1, 1, 1, 2);
    EXPECT_EQ(network.forward(), network.first);
  }
}

TEST(NormalizeLayerInNetwork, NewByteInputClearsTheNorms) {
  NormNetwork network;
  const std::uint8_t pixels[] = {3, 4};
  for (int i = 0; i < 3; ++i) {
    ravu_set_InputData_byRawData_byte(network.handle(), pixels, 1, 1, 1, 2);
    EXPECT_EQ(network.forward(), network.first);
    ravu_set_InputData_byRawData_test(network.handle(), pixels, 1, 1, 1, 2);
    EXPECT_EQ(network.forward(), network.first);
  }
}

TEST(NormalizeLayerInNetwork, NewInputBlobsClearTheNorms) {
  NormNetwork network;
  const std::uint8_t pixels[] = {3, 4};
  for (int i = 0; i < 3; ++i) {
    ravu_blob* image = ravu_create_data_blob(network.handle(), pixels, 1, 1, 2, 2);
    ravu_set_InputData(network.handle(), &image, 1);
    EXPECT_EQ(network.forward(), network.first);
  }
}

TEST(NormalizeLayerInNetwork, ASecondForwardRunWithoutNewInputAddsUp) {
  NormNetwork network;
  const float pixels[] = {3, 4};
  ravu_set_InputData_byRawData_float(network.handle(), pixels, 1, 1, 1, 2);
  network.forward();
  const float norm = std::sqrt(30.0F);
  EXPECT_EQ(network.forward(), (std::vector<float>{3 / norm, 4 / norm}));
}

TEST(NormalizeLayerInNetwork, NewInputOfAnotherShapeClearsTheNorms) {
  NormNetwork network;
  const float pixels[] = {3, 4, 6, 8};
  for (const uint32_t batch : {1U, 2U, 1U, 2U}) {
    ravu_set_InputData_byRawData_float(network.handle(), pixels, batch, 1, 1, 2);
    const auto output = network.forward();
    for (std::size_t i = 0; i < output.size(); ++i) EXPECT_EQ(output[i], network.first[i % 2]);
  }
}

TEST(NormalizeLayerInNetwork, ReleasedWeightsLeaveTheOutputAndASecondSetUpIsHarmless) {
  NormNetwork network;
  const float pixels[] = {3, 4};
  ravu_set_InputData_byRawData_float(network.handle(), pixels, 1, 1, 1, 2);
  network.forward();
  ravu_release_netowrk_weights(network.handle());
  ravu_set_InputData_byRawData_float(network.handle(), pixels, 1, 1, 1, 2);
  EXPECT_EQ(network.forward(), network.first);
  ravu_setup_runEngine(network.handle(), RAVU_MODE_CPU);
  EXPECT_EQ(network.forward(), network.first);
}

}  // namespace
}  // namespace ravu::test
