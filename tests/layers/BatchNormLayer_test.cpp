// Batch normalisation: values, the divisor's meaning, set-up, release.
#include "layers/BatchNormLayer.h"

#include <gtest/gtest.h>

#include <cmath>
#include <random>

#include "support/blobs.h"
#include "support/reference.h"

namespace ravu::test {
namespace {

void give_statistics(BatchNormLayer& layer, const std::vector<float>& mean,
                     const std::vector<float>& divisor) {
  layer.mean = make_blob({1, 1, 1, static_cast<std::uint32_t>(mean.size())}, mean);
  layer.divisor = make_blob({1, 1, 1, static_cast<std::uint32_t>(divisor.size())}, divisor);
}

TEST(BatchNormLayerForward, SubtractsTheMeanAndDividesByTheDivisorOfEachChannel) {
  BatchNormLayer layer;
  give_statistics(layer, {1, 10}, {2, 4});
  LayerRig rig(layer);
  rig.add_input({1, 1, 2, 2}, {3, 18, 1, 6});
  rig.add_output({1, 1, 2, 2});
  rig.set_up();
  EXPECT_EQ(rig.run(), (std::vector<float>{1, 2, 0, -1}));
}

TEST(BatchNormLayerForward, TheDivisorIsNoVarianceAndEpsilonIsIgnored) {
  BatchNormLayer layer;
  give_statistics(layer, {0}, {16});
  layer.epsilon = 9;
  LayerRig rig(layer);
  rig.add_input({1, 1, 1, 1}, {32});
  rig.add_output({1, 1, 1, 1});
  rig.set_up();
  EXPECT_EQ(rig.run(), std::vector<float>{2});
}

TEST(BatchNormLayerForward, ADivisorOfZeroGivesInfinity) {
  BatchNormLayer layer;
  give_statistics(layer, {1}, {0});
  LayerRig rig(layer);
  rig.add_input({1, 3, 1, 1}, {3, -3, 1});
  rig.add_output({1, 3, 1, 1});
  rig.set_up();
  const auto output = rig.run();
  EXPECT_EQ(output[0], INFINITY);
  EXPECT_EQ(output[1], -INFINITY);
  EXPECT_TRUE(std::isnan(output[2]));
}

TEST(BatchNormLayerForward, MultipliesByTheRoundedReciprocal) {
  // x / 3 and x times the rounded third differ in the last bit for some x.
  std::size_t differing = 0;
  for (unsigned x = 1; x < 100; ++x) {
    BatchNormLayer layer;
    give_statistics(layer, {0}, {3});
    LayerRig rig(layer);
    rig.add_input({1, 1, 1, 1}, {static_cast<float>(x)});
    rig.add_output({1, 1, 1, 1});
    rig.set_up();
    const float y = rig.run()[0];
    EXPECT_EQ(y, static_cast<float>(x) * (1.0F / 3.0F));
    differing += y != static_cast<float>(x) / 3.0F;
  }
  EXPECT_GT(differing, 0U);
}

TEST(BatchNormLayerForward, AgreesBitForBitWithTheReferenceInEveryRunMode) {
  std::mt19937 random(431);
  const auto draw = [&](std::uint32_t low, std::uint32_t high) {
    return std::uniform_int_distribution<std::uint32_t>(low, high)(random);
  };
  for (unsigned i = 0; i < 300; ++i) {
    const Dims dims{draw(1, 3), draw(1, 8), draw(1, 8), draw(1, 70)};
    const auto values = random_values(std::size_t{dims[0]} * dims[1] * dims[2] * dims[3], i);
    const auto mean = random_values(dims[3], i + 1);
    const auto divisor = random_values(dims[3], i + 2);
    BatchNormLayer layer;
    give_statistics(layer, mean, divisor);
    LayerRig rig(layer);
    Blob& input = rig.add_input(dims, values);
    if (draw(0, 1) == 0) {
      layer.outputs.push_back(&input);
    } else {
      rig.add_output(dims);
    }
    rig.set_up();
    EXPECT_EQ(bits_of(rig.run(i % 5)), bits_of(reference::batch_norm(values, mean, divisor)))
        << "case " << i;
  }
}

TEST(BatchNormLayerForward, TheRunLengthIsTheDivisorsLastDimension) {
  BatchNormLayer layer;
  // Two values, but stored along the first dimension: one channel.
  layer.mean = make_blob({2, 1, 1, 1}, {1, 100});
  layer.divisor = make_blob({2, 1, 1, 1}, {0.5F, 100});
  LayerRig rig(layer);
  rig.add_input({1, 1, 1, 3}, {1, 2, 3});
  rig.add_output({1, 1, 1, 3});
  rig.set_up();
  EXPECT_EQ(rig.run(), (std::vector<float>{0, 2, 4}));
}

TEST(BatchNormLayerForward, TheLastRunIsCutAtTheEnd) {
  BatchNormLayer layer;
  give_statistics(layer, {1, 2, 3}, {1, 1, 1});
  LayerRig rig(layer);
  rig.add_input({1, 1, 1, 5}, {0, 0, 0, 0, 0});
  rig.add_output({1, 1, 1, 5});
  rig.set_up();
  EXPECT_EQ(rig.run(), (std::vector<float>{-1, -2, -3, -1, -2}));
}

TEST(BatchNormLayerSetup, ASecondSetUpMakesTheReciprocalsAnew) {
  BatchNormLayer layer;
  give_statistics(layer, {0, 0}, {2, 4});
  LayerRig rig(layer);
  rig.add_input({1, 1, 1, 2}, {8, 8});
  rig.add_output({1, 1, 1, 2});
  rig.set_up();
  EXPECT_EQ(layer.reciprocals, (std::vector<float>{0.5F, 0.25F}));
  layer.divisor->data[0] = 8;
  EXPECT_EQ(rig.run(), (std::vector<float>{4, 2}));  // the old ones until then
  rig.set_up(3);
  EXPECT_EQ(layer.reciprocals, (std::vector<float>{0.125F, 0.25F}));
  EXPECT_EQ(rig.run(), (std::vector<float>{1, 2}));
}

TEST(BatchNormLayerReleaseWeights, LeavesTheStatistics) {
  BatchNormLayer layer;
  give_statistics(layer, {1}, {2});
  LayerRig rig(layer);
  rig.add_input({1, 1, 1, 1}, {5});
  rig.add_output({1, 1, 1, 1});
  rig.set_up();
  layer.ReleaseWeights();
  EXPECT_EQ(rig.run(), std::vector<float>{2});
}

TEST(BatchNormLayerReleaseStatistics, ClearsBothAndForwardLeavesTheOutput) {
  BatchNormLayer layer;
  give_statistics(layer, {1}, {2});
  LayerRig rig(layer);
  Blob& input = rig.add_input({1, 1, 1, 1}, {5});
  rig.add_output({1, 1, 1, 1});
  rig.set_up();
  EXPECT_EQ(rig.run(), std::vector<float>{2});
  layer.ReleaseStatistics();
  EXPECT_EQ(layer.mean, nullptr);
  EXPECT_EQ(layer.divisor, nullptr);
  input.data[0] = 9;
  EXPECT_EQ(rig.run(), std::vector<float>{2});
  rig.set_up();
  EXPECT_EQ(rig.run(), std::vector<float>{2});
}

TEST(BatchNormLayerForward, LeavesTheOutputBeforeTheSetUp) {
  BatchNormLayer layer;
  give_statistics(layer, {1}, {2});
  LayerRig rig(layer);
  rig.add_input({1, 1, 1, 1}, {5});
  assign(rig.add_output({1, 1, 1, 1}), nullptr);
  EXPECT_EQ(rig.run(), std::vector<float>{0});
}

TEST(BatchNormLayerReshape, TheOutputTakesTheInputsDims) {
  BatchNormLayer layer;
  LayerRig rig(layer);
  Blob& input = rig.add_input({1, 2, 2, 3});
  const Blob& output = rig.add_output({1, 2, 2, 3});
  rig.set_up();
  reshape(input, *make_shape(1, 4, 2, 3, kInterleaved));
  layer.Reshape();
  EXPECT_EQ(output.dims, (Dims{1, 4, 2, 3}));
  EXPECT_EQ(output.count, 24U);
}

TEST(BatchNormLayerFits, RefusesWhatTheKernelCouldNotRead) {
  BatchNormLayer layer;
  EXPECT_FALSE(fits(layer));
  LayerRig rig(layer);
  rig.add_input({1, 2, 2, 3});
  EXPECT_FALSE(fits(layer));
  give_statistics(layer, {1, 2, 3}, {1, 2, 3});
  EXPECT_TRUE(fits(layer));  // without an output
  Blob& output = rig.add_output({1, 2, 2, 3});
  EXPECT_TRUE(fits(layer));
  output.count = 13;
  EXPECT_FALSE(fits(layer));
  output.count = 12;
  give_statistics(layer, {1, 2}, {1, 2, 3});
  EXPECT_FALSE(fits(layer));
  give_statistics(layer, {1, 2, 3}, {});
  EXPECT_FALSE(fits(layer));
  give_statistics(layer, {1, 2, 3}, {1, 2, 3});
  layer.divisor->dims = {0, 1, 1, 3};
  layer.divisor->count = 0;
  EXPECT_FALSE(fits(layer));
}

}  // namespace
}  // namespace ravu::test
