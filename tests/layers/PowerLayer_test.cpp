// Power: the three steps, with and without shared storage.
#include "layers/PowerLayer.h"

#include <gtest/gtest.h>

#include <random>

#include "support/blobs.h"
#include "support/reference.h"

namespace ravu::test {
namespace {

// Runs the layer on `values`, in place when `shared`, else into an output full of sevens.
std::vector<float> run_power(PowerLayer& layer, const std::vector<float>& values, bool shared) {
  LayerRig rig(layer);
  const auto n = static_cast<std::uint32_t>(values.size());
  Blob& input = rig.add_input({1, 1, 1, n}, values);
  if (shared) {
    layer.outputs.push_back(&input);
  } else {
    assign(rig.add_output({1, 1, 1, n}), std::vector<float>(n, 7).data());
  }
  rig.set_up();
  return rig.run();
}

TEST(PowerLayerForward, TheStepsComposeInSharedStorage) {
  PowerLayer layer;
  layer.scale = 2;
  layer.shift = 1;
  layer.power = 2;
  EXPECT_EQ(run_power(layer, {1, 2, -3}, /*shared=*/true), (std::vector<float>{9, 25, 25}));
}

TEST(PowerLayerForward, EveryStepStartsFromTheInputOtherwise) {
  PowerLayer layer;
  layer.scale = 2;
  EXPECT_EQ(run_power(layer, {1, 2, -3}, /*shared=*/false), (std::vector<float>{2, 4, -6}));
  layer.shift = 1;
  EXPECT_EQ(run_power(layer, {1, 2, -3}, /*shared=*/false), (std::vector<float>{2, 3, -2}));
  layer.power = 2;
  EXPECT_EQ(run_power(layer, {1, 2, -3}, /*shared=*/false), (std::vector<float>{1, 4, 9}));
}

TEST(PowerLayerForward, TheIdentityCopiesNothing) {
  PowerLayer layer;
  EXPECT_EQ(run_power(layer, {1, 2, -3}, /*shared=*/false), (std::vector<float>{7, 7, 7}));
  EXPECT_EQ(run_power(layer, {1, 2, -3}, /*shared=*/true), (std::vector<float>{1, 2, -3}));
}

TEST(PowerLayerForward, AScaleOfZeroGivesZeros) {
  PowerLayer layer;
  layer.scale = 0;
  EXPECT_EQ(run_power(layer, {1, 2, 3}, /*shared=*/false), (std::vector<float>{0, 0, 0}));
}

TEST(PowerLayerForward, APowerOfZeroGivesOnes) {
  PowerLayer layer;
  layer.scale = layer.power = 0;
  EXPECT_EQ(run_power(layer, {1, 2, 3}, /*shared=*/false), (std::vector<float>{1, 1, 1}));
}

TEST(PowerLayerForward, BorrowedStorageCountsAsShared) {
  PowerLayer layer;
  layer.scale = 2;
  layer.shift = 1;
  LayerRig rig(layer);
  Blob& input = rig.add_input({1, 1, 1, 2}, {1, 2});
  Blob& output = rig.add_output({1, 1, 1, 2});
  borrow(output, input);
  rig.set_up();
  EXPECT_EQ(rig.run(), (std::vector<float>{3, 5}));
}

TEST(PowerLayerForward, AgreesBitForBitWithTheReference) {
  std::mt19937 random(452);
  const float parameters[] = {0.0F, 1.0F, -0.0F, 0.5F, -1.5F, 2.0F, 3.0F, 0.1F};
  for (unsigned i = 0; i < 600; ++i) {
    PowerLayer layer;
    layer.scale = parameters[random() % 8];
    layer.shift = parameters[random() % 8];
    layer.power = parameters[random() % 8];
    const bool shared = random() % 2 == 0;
    const auto values = values_with_extremes(1 + random() % 80, i);
    const auto before = shared ? values : std::vector<float>(values.size(), 7);
    EXPECT_EQ(
        bits_of(run_power(layer, values, shared)),
        bits_of(reference::power(values, before, shared, layer.scale, layer.shift, layer.power)))
        << layer.scale << " " << layer.shift << " " << layer.power << " " << shared;
  }
}

TEST(PowerLayerReshape, TheOutputTakesTheInputsDims) {
  PowerLayer layer;
  LayerRig rig(layer);
  Blob& input = rig.add_input({1, 2, 2, 3});
  const Blob& output = rig.add_output({1, 2, 2, 3});
  rig.set_up();
  reshape(input, *make_shape(1, 2, 5, 3, kInterleaved));
  layer.Reshape();
  EXPECT_EQ(output.dims, (Dims{1, 2, 5, 3}));
  ASSERT_NE(output.data, nullptr);
}

TEST(PowerLayerFits, RefusesAnOutputLargerThanTheInput) {
  PowerLayer layer;
  EXPECT_FALSE(fits(layer));
  LayerRig rig(layer);
  rig.add_input({1, 2, 2, 3});
  EXPECT_TRUE(fits(layer));
  Blob& output = rig.add_output({1, 2, 2, 2});
  EXPECT_TRUE(fits(layer));
  output.count = 13;
  EXPECT_FALSE(fits(layer));
}

}  // namespace
}  // namespace ravu::test
