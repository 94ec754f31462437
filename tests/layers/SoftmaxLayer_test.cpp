// Softmax: groups, values, extremes.
#include "layers/SoftmaxLayer.h"

#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <numeric>
#include <random>

#include "support/blobs.h"
#include "support/reference.h"

namespace ravu::test {
namespace {

std::vector<float> run_softmax(Dims dims, const std::vector<float>& values) {
  SoftmaxLayer layer;
  LayerRig rig(layer);
  rig.add_input(dims, values);
  rig.add_output(dims);
  rig.set_up();
  return rig.run();
}

TEST(SoftmaxLayerForward, ClassifierScoresSumToOne) {
  const auto output = run_softmax({1, 1, 1, 100}, random_values(100, 1));
  EXPECT_NEAR(std::accumulate(output.begin(), output.end(), 0.0), 1.0, 1e-6);
}

TEST(SoftmaxLayerForward, AOneChannelMapIsNormalisedOverEachImagesPlane) {
  const auto values = random_values(2 * 3 * 4, 2);
  EXPECT_EQ(run_softmax({2, 3, 4, 1}, values), reference::softmax(values, 12));
}

TEST(SoftmaxLayerForward, SeveralChannelsAreNormalisedPerPixel) {
  const auto values = random_values(2 * 3 * 4 * 5, 3);
  EXPECT_EQ(run_softmax({2, 3, 4, 5}, values), reference::softmax(values, 5));
}

TEST(SoftmaxLayerForward, EqualInputsGiveEqualShares) {
  for (const float y : run_softmax({1, 1, 1, 8}, std::vector<float>(8, 3.0F))) {
    EXPECT_EQ(y, 0.125F);
  }
}

TEST(SoftmaxLayerForward, LargeInputsDoNotOverflow) {
  const auto output = run_softmax({1, 1, 1, 2}, {1000.0F, 1001.0F});
  EXPECT_NEAR(output[0], 0.26894142, 1e-6);
  EXPECT_NEAR(output[1], 0.73105858, 1e-6);
}

TEST(SoftmaxLayerForward, MinusInfinityGivesZero) {
  const auto output =
      run_softmax({1, 1, 1, 3}, {1.0F, -std::numeric_limits<float>::infinity(), 1.0F});
  EXPECT_EQ(output, (std::vector<float>{0.5F, 0.0F, 0.5F}));
}

TEST(SoftmaxLayerForward, NotANumberSpreadsOverItsGroupOnly) {
  const auto output =
      run_softmax({1, 1, 2, 2}, {1.0F, std::numeric_limits<float>::quiet_NaN(), 1.0F, 1.0F});
  EXPECT_TRUE(std::isnan(output[0]));
  EXPECT_TRUE(std::isnan(output[1]));
  EXPECT_EQ(output[2], 0.5F);
}

TEST(SoftmaxLayerForward, MultipliesByTheRoundedReciprocalOfTheSum) {
  // With the largest input 0 and the others far below, the sum is 1 + exp(-1): the quotient and the
  // product with the rounded reciprocal differ in the last bit for some of these lengths.
  std::size_t differing = 0;
  for (unsigned seed = 0; seed < 200; ++seed) {
    const auto values = random_values(5, seed);
    const auto output = run_softmax({1, 1, 1, 5}, values);
    EXPECT_EQ(output, reference::softmax(values, 5));
    float greatest = values[0];
    for (const float x : values) greatest = std::fmax(greatest, x);
    float sum = 0;
    for (const float x : values) sum += expf(x - greatest);
    for (std::size_t i = 0; i < 5; ++i) differing += output[i] != expf(values[i] - greatest) / sum;
  }
  EXPECT_GT(differing, 0U);
}

TEST(SoftmaxLayerForward, AgreesBitForBitWithTheReference) {
  std::mt19937 random(54);
  for (unsigned i = 0; i < 300; ++i) {
    const auto draw = [&](std::uint32_t low, std::uint32_t high) {
      return std::uniform_int_distribution<std::uint32_t>(low, high)(random);
    };
    const Dims dims{draw(1, 3), draw(1, 6), draw(1, 6), draw(1, 40)};
    const auto values = random_values(std::size_t{dims[0]} * dims[1] * dims[2] * dims[3], i);
    const std::size_t length = dims[3] != 1 ? dims[3] : std::size_t{dims[1]} * dims[2];
    EXPECT_EQ(run_softmax(dims, values), reference::softmax(values, length)) << "case " << i;
  }
}

TEST(SoftmaxLayerForward, TheLastRunIsCutAtTheEnd) {
  SoftmaxLayer layer;
  LayerRig rig(layer);
  Blob& input = rig.add_input({1, 1, 1, 7}, random_values(7, 9));
  Blob& output = rig.add_output({1, 1, 1, 7});
  rig.set_up();
  input.dims = output.dims = {1, 1, 2, 5};  // more than the count
  EXPECT_EQ(rig.run(), reference::softmax(random_values(7, 9), 5));
}

TEST(SoftmaxLayerReshape, TheOutputTakesTheInputsDims) {
  SoftmaxLayer layer;
  LayerRig rig(layer);
  Blob& input = rig.add_input({1, 2, 2, 3});
  const Blob& output = rig.add_output({1, 2, 2, 3});
  rig.set_up();
  reshape(input, *make_shape(2, 4, 2, 3, kInterleaved));
  layer.Reshape();
  EXPECT_EQ(output.dims, (Dims{2, 4, 2, 3}));
  EXPECT_NE(output.data, nullptr);
}

TEST(SoftmaxLayerFits, RefusesGroupsOfNoLengthAndSmallOutputs) {
  SoftmaxLayer layer;
  LayerRig rig(layer);
  Blob& input = rig.add_input({1, 1, 1, 7});
  rig.add_output({1, 1, 1, 7});
  EXPECT_TRUE(fits(layer));
  input.dims = {1, 1, 1, 0};
  EXPECT_FALSE(fits(layer));
  input.dims = {1, 1, 1, 8};
  input.count = 8;
  EXPECT_FALSE(fits(layer));
}

}  // namespace
}  // namespace ravu::test
