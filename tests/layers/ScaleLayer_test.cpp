// Scale: values, the repeated tensors, the reorder of planar scales, release.
#include "layers/ScaleLayer.h"

#include <gtest/gtest.h>

#include <random>

#include "support/blobs.h"
#include "support/reference.h"

namespace ravu::test {
namespace {

BlobPtr vector_blob(const std::vector<float>& values) {
  return make_blob({1, 1, 1, static_cast<std::uint32_t>(values.size())}, values);
}

// Runs the layer on n = values.size() elements.
std::vector<float> run_scale(ScaleLayer& layer, const std::vector<float>& values) {
  LayerRig rig(layer);
  const auto n = static_cast<std::uint32_t>(values.size());
  rig.add_input({1, 1, 1, n}, values);
  rig.add_output({1, 1, 1, n});
  rig.set_up();
  return rig.run();
}

TEST(ScaleLayerForward, ScalesAndShiftsEachChannel) {
  ScaleLayer layer;
  layer.has_bias = true;
  layer.scales = vector_blob({2, 3});
  layer.bias = vector_blob({10, 20});
  EXPECT_EQ(run_scale(layer, {1, 2, 3, 4}), (std::vector<float>{12, 26, 16, 32}));
}

TEST(ScaleLayerForward, WithoutAFlagTheBiasIsNotAdded) {
  ScaleLayer layer;
  layer.scales = vector_blob({2});
  layer.bias = vector_blob({10});
  EXPECT_EQ(run_scale(layer, {1, 2}), (std::vector<float>{2, 4}));
}

TEST(ScaleLayerForward, AFlagWithoutABiasBlobAddsNothing) {
  ScaleLayer layer;
  layer.has_bias = true;
  layer.scales = vector_blob({2});
  EXPECT_EQ(run_scale(layer, {1, 2}), (std::vector<float>{2, 4}));
}

TEST(ScaleLayerForward, TheLastRunsAreCutAtTheEnd) {
  ScaleLayer layer;
  layer.has_bias = true;
  layer.scales = vector_blob({1, 2, 3});
  layer.bias = vector_blob({10, 20, 30, 40});
  EXPECT_EQ(run_scale(layer, {1, 1, 1, 1, 1}), (std::vector<float>{11, 22, 33, 41, 12}));
}

TEST(ScaleLayerForward, ATensorLargerThanTheDataIsReadInPart) {
  ScaleLayer layer;
  layer.scales = vector_blob({1, 2, 3});
  EXPECT_EQ(run_scale(layer, {5, 5}), (std::vector<float>{5, 10}));
}

TEST(ScaleLayerForward, AgreesBitForBitWithTheReferenceInEveryRunMode) {
  std::mt19937 random(441);
  const auto draw = [&](std::uint32_t low, std::uint32_t high) {
    return std::uniform_int_distribution<std::uint32_t>(low, high)(random);
  };
  for (unsigned i = 0; i < 400; ++i) {
    const Dims dims{draw(1, 3), draw(1, 8), draw(1, 8), draw(1, 70)};
    const auto values = values_with_extremes(std::size_t{dims[0]} * dims[1] * dims[2] * dims[3], i);
    // Per channel, per image, or of any length.
    const std::uint32_t lengths[] = {dims[3], dims[1] * dims[2] * dims[3], draw(1, 90)};
    const auto scales = random_values(lengths[draw(0, 2)], i + 1);
    const auto bias = random_values(draw(0, 1) == 0 ? scales.size() : lengths[draw(0, 2)], i + 2);
    ScaleLayer layer;
    layer.has_bias = draw(0, 3) > 0;
    layer.scales = vector_blob(scales);
    if (layer.has_bias) layer.bias = vector_blob(bias);
    LayerRig rig(layer);
    Blob& input = rig.add_input(dims, values);
    if (draw(0, 1) == 0) {
      layer.outputs.push_back(&input);
    } else {
      rig.add_output(dims);
    }
    rig.set_up();
    const auto expected =
        reference::scale(values, scales, layer.has_bias ? bias : std::vector<float>{});
    EXPECT_EQ(bits_of(rig.run(i % 5)), bits_of(expected)) << "case " << i;
  }
}

TEST(ScaleLayerSetup, APlanarTensorIsReorderedAtEverySetUp) {
  ScaleLayer layer;
  layer.scales = make_blob({1, 2, 2, 3}, {0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11});
  layer.scales->layout = kPlanar;
  LayerRig rig(layer);
  rig.add_input({1, 2, 2, 3}, std::vector<float>(12, 1));
  rig.add_output({1, 2, 2, 3});
  rig.set_up();
  EXPECT_EQ(rig.run(), (std::vector<float>{0, 4, 8, 1, 5, 9, 2, 6, 10, 3, 7, 11}));
  EXPECT_EQ(layer.scales->layout, kPlanar);
  rig.set_up();
  EXPECT_EQ(rig.run(), (std::vector<float>{0, 5, 10, 4, 9, 3, 8, 2, 7, 1, 6, 11}));
}

TEST(ScaleLayerSetup, APlanarTensorOfOnePixelStays) {
  ScaleLayer layer;
  layer.scales = vector_blob({1, 2, 3});
  layer.scales->layout = kPlanar;
  EXPECT_EQ(run_scale(layer, {1, 1, 1}), (std::vector<float>{1, 2, 3}));
}

TEST(ScaleLayerReleaseWeights, ClearsBothAndForwardLeavesTheOutput) {
  ScaleLayer layer;
  layer.has_bias = true;
  layer.scales = vector_blob({2});
  layer.bias = vector_blob({1});
  LayerRig rig(layer);
  Blob& input = rig.add_input({1, 1, 1, 1}, {3});
  rig.add_output({1, 1, 1, 1});
  rig.set_up();
  EXPECT_EQ(rig.run(), std::vector<float>{7});
  layer.ReleaseWeights();
  EXPECT_EQ(layer.scales, nullptr);
  EXPECT_EQ(layer.bias, nullptr);
  input.data[0] = 9;
  EXPECT_EQ(rig.run(), std::vector<float>{7});
  rig.set_up();
  EXPECT_EQ(rig.run(), std::vector<float>{7});
}

TEST(ScaleLayerReshape, TheOutputTakesTheInputsDims) {
  ScaleLayer layer;
  LayerRig rig(layer);
  Blob& input = rig.add_input({1, 2, 2, 3});
  const Blob& output = rig.add_output({1, 2, 2, 3});
  rig.set_up();
  reshape(input, *make_shape(1, 4, 2, 3, kInterleaved));
  layer.Reshape();
  EXPECT_EQ(output.dims, (Dims{1, 4, 2, 3}));
  EXPECT_EQ(output.count, 24U);
}

TEST(ScaleLayerFits, RefusesWhatTheKernelCouldNotRead) {
  ScaleLayer layer;
  EXPECT_FALSE(fits(layer));
  LayerRig rig(layer);
  rig.add_input({1, 2, 2, 3});
  EXPECT_FALSE(fits(layer));
  layer.scales = vector_blob({1, 2});
  EXPECT_TRUE(fits(layer));  // without an output
  Blob& output = rig.add_output({1, 2, 2, 3});
  EXPECT_TRUE(fits(layer));
  output.count = 13;
  EXPECT_FALSE(fits(layer));
  output.count = 12;
  layer.scales = vector_blob({});
  EXPECT_FALSE(fits(layer));
  layer.scales = vector_blob({1});
  layer.bias = vector_blob({});
  EXPECT_TRUE(fits(layer));
  layer.has_bias = true;
  EXPECT_FALSE(fits(layer));
}

}  // namespace
}  // namespace ravu::test
