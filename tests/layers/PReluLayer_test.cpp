// Parametric rectifier: the slope of each channel, shape, release.
#include "layers/PReluLayer.h"

#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <random>

#include "support/blobs.h"
#include "support/reference.h"

namespace ravu::test {
namespace {

void give_slopes(PReluLayer& layer, const std::vector<float>& slopes) {
  layer.slopes = make_blob({1, 1, 1, static_cast<std::uint32_t>(slopes.size())}, slopes);
}

TEST(PReluLayerForward, TheLastChannelUsesTheLastSlopeAndTheNextElementTheFirst) {
  PReluLayer layer;
  give_slopes(layer, {0.5F, 2, 10});
  LayerRig rig(layer);
  rig.add_input({1, 1, 2, 3}, {1, 2, -3, -4, 5, -6});
  rig.add_output({1, 1, 2, 3});
  rig.set_up();
  EXPECT_EQ(rig.run(), (std::vector<float>{1, 2, -30, -2, 5, -60}));
}

TEST(PReluLayerForward, ASharedChannelStillTakesOneSlopePerChannel) {
  PReluLayer layer;
  layer.channel_shared = true;
  give_slopes(layer, {2, 3});
  LayerRig rig(layer);
  rig.add_input({1, 1, 1, 2}, {-1, -1});
  rig.add_output({1, 1, 1, 2});
  rig.set_up();
  EXPECT_EQ(rig.run(), (std::vector<float>{-2, -3}));
}

TEST(PReluLayerForward, NotANumberStaysNotANumber) {
  PReluLayer layer;
  give_slopes(layer, {0.5F});
  LayerRig rig(layer);
  rig.add_input({1, 19, 1, 1}, std::vector<float>(19, std::numeric_limits<float>::quiet_NaN()));
  rig.add_output({1, 19, 1, 1});
  rig.set_up();
  for (const float y : rig.run()) EXPECT_TRUE(std::isnan(y));
}

TEST(PReluLayerForward, AgreesBitForBitWithTheReferenceInEveryRunMode) {
  std::mt19937 random(451);
  const auto draw = [&](std::uint32_t low, std::uint32_t high) {
    return std::uniform_int_distribution<std::uint32_t>(low, high)(random);
  };
  for (unsigned i = 0; i < 300; ++i) {
    const Dims dims{draw(1, 2), draw(1, 9), draw(1, 9), draw(1, 70)};
    const std::size_t n = std::size_t{dims[0]} * dims[1] * dims[2] * dims[3];
    const auto values = values_with_extremes(n, i);
    const auto slopes = random_values(dims[3], i + 1);
    PReluLayer layer;
    give_slopes(layer, slopes);
    LayerRig rig(layer);
    rig.add_input(dims, values);
    rig.add_output(dims);
    rig.set_up();
    EXPECT_EQ(bits_of(rig.run(i % 5)), bits_of(reference::prelu(values, slopes, dims[3])))
        << "case " << i;
  }
}

TEST(PReluLayerForward, WorksInPlace) {
  PReluLayer layer;
  give_slopes(layer, {0.5F, 2});
  LayerRig rig(layer);
  Blob& blob = rig.add_input({1, 1, 2, 2}, {-1, -1, 3, -4});
  layer.outputs.push_back(&blob);
  rig.set_up();
  EXPECT_EQ(rig.run(), (std::vector<float>{-0.5F, -2, 3, -8}));
}

TEST(PReluLayerForward, TheLastPixelIsCutAtTheEnd) {
  PReluLayer layer;
  give_slopes(layer, {2, 3, 4});
  LayerRig rig(layer);
  Blob& input = rig.add_input({1, 1, 1, 5}, {-1, -1, -1, -1, -1});
  rig.add_output({1, 1, 1, 5});
  rig.set_up();
  input.dims = {1, 1, 2, 3};  // more than the count
  EXPECT_EQ(rig.run(), (std::vector<float>{-2, -3, -4, -2, -3}));
}

TEST(PReluLayerReleaseWeights, ClearsTheSlopesAndForwardLeavesTheOutput) {
  PReluLayer layer;
  give_slopes(layer, {2});
  LayerRig rig(layer);
  Blob& input = rig.add_input({1, 1, 1, 1}, {-1});
  rig.add_output({1, 1, 1, 1});
  rig.set_up();
  EXPECT_EQ(rig.run(), std::vector<float>{-2});
  input.data[0] = -5;
  layer.ReleaseWeights();
  EXPECT_EQ(layer.slopes, nullptr);
  EXPECT_EQ(rig.run(), std::vector<float>{-2});
}

TEST(PReluLayerForward, LeavesTheOutputBeforeTheSetUp) {
  PReluLayer layer;
  give_slopes(layer, {2});
  LayerRig rig(layer);
  rig.add_input({1, 1, 1, 1}, {-1});
  rig.add_output({1, 1, 1, 1});
  EXPECT_EQ(rig.run(), std::vector<float>{});
}

TEST(PReluLayerReshape, TheOutputTakesTheInputsDims) {
  PReluLayer layer;
  LayerRig rig(layer);
  Blob& input = rig.add_input({1, 2, 2, 3});
  const Blob& output = rig.add_output({1, 2, 2, 3});
  rig.set_up();
  reshape(input, *make_shape(1, 4, 2, 3, kInterleaved));
  layer.Reshape();
  EXPECT_EQ(output.dims, (Dims{1, 4, 2, 3}));
  EXPECT_EQ(output.count, 24U);
}

TEST(PReluLayerFits, RefusesWhatTheKernelCouldNotRead) {
  PReluLayer layer;
  EXPECT_FALSE(fits(layer));
  LayerRig rig(layer);
  Blob& input = rig.add_input({1, 2, 2, 3});
  EXPECT_FALSE(fits(layer));
  give_slopes(layer, {1, 2, 3});
  EXPECT_TRUE(fits(layer));  // without an output
  Blob& output = rig.add_output({1, 2, 2, 3});
  EXPECT_TRUE(fits(layer));
  give_slopes(layer, {1, 2});
  EXPECT_FALSE(fits(layer));
  give_slopes(layer, {1, 2, 3});
  output.count = 13;
  EXPECT_FALSE(fits(layer));
  output.count = 12;
  input.dims[3] = 0;
  EXPECT_FALSE(fits(layer));
}

}  // namespace
}  // namespace ravu::test
