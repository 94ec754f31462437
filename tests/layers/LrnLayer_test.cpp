// Local response normalisation: windows, the running sum, the approximate power, the shared scale
// Blob.
#include "layers/LrnLayer.h"

#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <random>

#include "support/blobs.h"
#include "support/reference.h"

namespace ravu::test {
namespace {

LrnLayer& configure(LrnLayer& layer, std::uint32_t size, float alpha, float beta, float k) {
  layer.size = size;
  layer.alpha = alpha;
  layer.beta = beta;
  layer.k = k;
  return layer;
}

struct Run {
  std::vector<float> output;
  std::vector<float> scale;
};

Run run_lrn(LrnLayer& layer, Dims dims, const std::vector<float>& values) {
  LayerRig rig(layer);
  rig.add_input(dims, values);
  rig.add_output(dims);
  rig.set_up();
  Run run{rig.run(), {}};
  run.scale = values_of(*layer.scale);
  return run;
}

TEST(LrnLayerForward, AWindowOfFiveOverThreeChannelsSumsAllOfThem) {
  LrnLayer layer;
  const auto run = run_lrn(configure(layer, 5, 5.0F, 0.75F, 1.0F), {1, 1, 1, 3}, {1, 2, 3});
  EXPECT_EQ(run.scale, (std::vector<float>{15, 15, 15}));
}

TEST(LrnLayerForward, AWindowOfThreeIsClippedAtTheEndsAndNeverWraps) {
  LrnLayer layer;
  const auto run = run_lrn(configure(layer, 3, 3.0F, 0.75F, 0.0F), {1, 1, 1, 4}, {1, 2, 3, 4});
  EXPECT_EQ(run.scale, (std::vector<float>{5, 14, 29, 25}));
}

TEST(LrnLayerForward, AnEvenSizeSumsOneChannelMoreThanItsSize) {
  LrnLayer layer;
  const auto run = run_lrn(configure(layer, 2, 2.0F, 0.75F, 0.0F), {1, 1, 1, 4}, {1, 2, 3, 4});
  EXPECT_EQ(run.scale, (std::vector<float>{5, 14, 29, 25}));
}

TEST(LrnLayerForward, OneChannelIsNormalisedByItsOwnSquareAlone) {
  LrnLayer layer;
  const auto run = run_lrn(configure(layer, 5, 10.0F, 0.75F, 3.0F), {1, 1, 2, 1}, {2, -4});
  EXPECT_EQ(run.scale, (std::vector<float>{3 + 2 * 4, 3 + 2 * 16}));
}

TEST(LrnLayerForward, HalfAWindowBeyondTheChannelsSumsTheChannelsThatExist) {
  for (const std::uint32_t size : {6U, 7U, 100U, 0xFFFFFFFFU}) {
    LrnLayer layer;
    const auto run = run_lrn(configure(layer, size, static_cast<float>(size), 0.75F, 0.0F),
                             {1, 1, 2, 3}, {1, 2, 3, 4, 5, 6});
    EXPECT_EQ(run.scale, (std::vector<float>{14, 14, 14, 77, 77, 77})) << size;
  }
}

TEST(LrnLayerForward, BetaZeroKeepsTheInputUpToTheApproximation) {
  LrnLayer layer;
  const auto values = random_values(60, 1);
  const auto run = run_lrn(configure(layer, 5, 1e-4F, 0.0F, 1.0F), {1, 3, 4, 5}, values);
  for (std::size_t i = 0; i < values.size(); ++i) {
    EXPECT_NEAR(run.output[i], values[i], 1e-4 * std::abs(values[i]));
  }
}

TEST(LrnLayerForward, WithoutKAnAllZeroPixelStaysZero) {
  LrnLayer layer;
  const auto run = run_lrn(configure(layer, 5, 1e-4F, 0.75F, 0.0F), {1, 1, 1, 4}, {0, 0, 0, 0});
  EXPECT_EQ(run.scale, std::vector<float>(4, 0.0F));
  EXPECT_EQ(run.output, std::vector<float>(4, 0.0F));
}

TEST(LrnLayerForward, TheApproximationIsCloseToTheExactPowerButNotEqual) {
  LrnLayer layer;
  const auto values = random_values(1000, 2);
  const auto run = run_lrn(configure(layer, 5, 0.5F, 0.75F, 2.0F), {1, 10, 10, 10}, values);
  std::size_t equal = 0;
  for (std::size_t i = 0; i < values.size(); ++i) {
    const double exact = std::pow(static_cast<double>(run.scale[i]), -0.75) * values[i];
    EXPECT_NEAR(run.output[i], exact, 3e-4 * std::abs(exact));
    equal += run.output[i] == static_cast<float>(exact);
  }
  EXPECT_LT(equal, values.size() / 10);
}

TEST(LrnLayerForward, TheRunningSumAddsAndSubtractsInsteadOfStartingAgain) {
  LrnLayer layer;
  const auto run =
      run_lrn(configure(layer, 3, 3.0F, 0.75F, 0.0F), {1, 1, 1, 4}, {8192, 1, 0.001F, 0.001F});
  // The second square was lost beside the first, but is subtracted all the same.
  EXPECT_NEAR(run.scale[3], -1.0F, 1e-5);
}

TEST(LrnLayerForward, PowersOutsideTheFloatRangeAreWhatTheBitsSay) {
  EXPECT_EQ(std::signbit(reference::fast_power(1e-30F, -10.0F)), true);
  for (const float x : {0.0F, -1.0F, 1e-30F, 1e30F, std::numeric_limits<float>::infinity(),
                        std::numeric_limits<float>::quiet_NaN()}) {
    for (const float beta : {-1e10F, -10.0F, 0.75F, 10.0F, 1e10F}) {
      LrnLayer layer;  // k alone makes the denominators
      const auto run =
          run_lrn(configure(layer, 1, 0.0F, beta, x), {1, 1, 3, 7}, std::vector<float>(21, 1.0F));
      const float expected = reference::fast_power(x, -beta) * 1.0F;
      EXPECT_EQ(bits_of(run.output), bits_of(std::vector<float>(21, expected))) << x << " " << beta;
    }
  }
}

TEST(LrnLayerForward, AnIncompleteLastPixelIsAPixelWithFewerChannels) {
  LrnLayer layer;
  configure(layer, 3, 0.3F, 0.75F, 1.0F);
  LayerRig rig(layer);
  const auto values = random_values(40, 3);
  Blob& input = rig.add_input({1, 1, 1, 40}, values);
  Blob& output = rig.add_output({1, 1, 1, 40});
  input.dims = output.dims = {1, 1, 3, 16};
  rig.set_up();
  EXPECT_EQ(rig.run(), reference::lrn(16, 3, 0.3F, 0.75F, 1.0F, values).output);
}

TEST(LrnLayerForward, WorksInPlace) {
  LrnLayer layer;
  configure(layer, 3, 0.3F, 0.75F, 1.0F);
  LayerRig rig(layer);
  const auto values = random_values(3 * 33, 4);
  layer.outputs.push_back(&rig.add_input({1, 3, 3, 11}, values));
  rig.set_up();
  EXPECT_EQ(rig.run(), reference::lrn(11, 3, 0.3F, 0.75F, 1.0F, values).output);
}

TEST(LrnLayerForward, AgreesBitForBitWithTheReference) {
  std::mt19937 random(52);
  const auto draw = [&](int low, int high) {
    return std::uniform_int_distribution<int>(low, high)(random);
  };
  const auto draw_float = [&](float low, float high) {
    return std::uniform_real_distribution<float>(low, high)(random);
  };
  for (int i = 0; i < 400; ++i) {
    const Dims dims{static_cast<std::uint32_t>(draw(1, 2)), static_cast<std::uint32_t>(draw(1, 6)),
                    static_cast<std::uint32_t>(draw(1, 6)),
                    static_cast<std::uint32_t>(draw(1, 40))};
    const int size = draw(1, 12);
    // Negative values of alpha and k give negative denominators, whose bits are large integers.
    const float alpha = draw_float(-0.2F, 1.0F);
    const float beta = draw_float(-0.5F, 1.5F);
    const float k = draw_float(-0.1F, 2.0F);
    const auto values = random_values(std::size_t{dims[0]} * dims[1] * dims[2] * dims[3], 100U + i);
    LrnLayer layer;
    const auto run =
        run_lrn(configure(layer, static_cast<std::uint32_t>(size), alpha, beta, k), dims, values);
    const auto expected = reference::lrn(static_cast<int>(dims[3]), size, alpha, beta, k, values);
    EXPECT_EQ(run.scale, expected.scale) << "case " << i;
    EXPECT_EQ(bits_of(run.output), bits_of(expected.output)) << "case " << i;
  }
}

TEST(LrnLayerSetup, LayersWithEqualInputShapesShareOneScaleBlob) {
  LrnLayer first, second, other;
  std::vector<BlobPtr> params;
  LayerRig a(configure(first, 5, 1, 1, 1)), b(configure(second, 3, 2, 2, 2));
  LayerRig c(configure(other, 5, 1, 1, 1));
  a.add_input({1, 2, 2, 3});
  b.add_input({1, 2, 2, 3});
  c.add_input({1, 2, 3, 2});
  first.Setup(0, params);
  second.Setup(0, params);
  other.Setup(0, params);
  EXPECT_EQ(first.scale, second.scale);
  EXPECT_NE(first.scale, other.scale);
  EXPECT_EQ(params.size(), 2U);
  first.Setup(0, params);
  EXPECT_EQ(params.size(), 2U);
}

TEST(LrnLayerForward, ReshapesASharedScaleBlobThatNoLongerFits) {
  LrnLayer layer;
  configure(layer, 3, 0.3F, 0.75F, 1.0F);
  LayerRig rig(layer);
  const auto values = random_values(12, 5);
  rig.add_input({1, 2, 2, 3}, values);
  rig.add_output({1, 2, 2, 3});
  rig.set_up();
  reshape(*layer.scale, *make_blob({1, 1, 1, 2}));  // as the other layer would
  EXPECT_EQ(rig.run(), reference::lrn(3, 3, 0.3F, 0.75F, 1.0F, values).output);
  EXPECT_EQ(layer.scale->count, 12U);
}

TEST(LrnLayerForward, ReshapesAScaleBlobOfTheSameDimsThatHoldsFewerElements) {
  LrnLayer layer;
  configure(layer, 3, 0.3F, 0.75F, 1.0F);
  LayerRig rig(layer);
  const auto values = random_values(12, 5);
  rig.add_input({1, 2, 2, 3}, values);
  rig.add_output({1, 2, 2, 3});
  rig.params.push_back(make_blob({1, 1, 1, 2}, {0, 0}));
  rig.params.back()->dims = {1, 2, 2, 3};
  rig.set_up();
  EXPECT_EQ(layer.scale, rig.params.front().get());
  EXPECT_EQ(rig.run(), reference::lrn(3, 3, 0.3F, 0.75F, 1.0F, values).output);
}

TEST(LrnLayerShape, OutputScaleBlobAndScratchFollowTheInput) {
  LrnLayer layer;
  configure(layer, 3, 0.3F, 0.75F, 1.0F);
  LayerRig rig(layer);
  Blob& input = rig.add_input({1, 1, 1, 3}, {1, 2, 3});
  const Blob& output = rig.add_output({1, 1, 1, 3});
  rig.set_up();
  const auto values = random_values(2 * 5 * 4 * 31, 6);
  reshape(input, *make_blob({2, 5, 4, 31}));
  std::copy(values.begin(), values.end(), input.data);
  layer.Reshape();
  EXPECT_EQ(output.dims, (Dims{2, 5, 4, 31}));
  EXPECT_EQ(layer.scale->dims, output.dims);
  EXPECT_EQ(rig.run(), reference::lrn(31, 3, 0.3F, 0.75F, 1.0F, values).output);
}

TEST(LrnLayerShape, AnUnchangedInputKeepsTheOutput) {
  LrnLayer layer;
  const auto values = random_values(12, 7);
  LayerRig rig(configure(layer, 3, 0.3F, 0.75F, 1.0F));
  rig.add_input({1, 2, 2, 3}, values);
  const Blob& output = rig.add_output({1, 2, 2, 3});
  rig.set_up();
  const auto before = rig.run();
  const float* storage = output.data;
  layer.Reshape();
  EXPECT_EQ(output.data, storage);
  EXPECT_EQ(values_of(output), before);
}

TEST(LrnLayerShape, FollowsBeforeAnySetUp) {
  LrnLayer layer;
  LayerRig rig(configure(layer, 3, 0.3F, 0.75F, 1.0F));
  rig.add_input({2, 1, 1, 3});
  const Blob& output = rig.add_output({1, 1, 1, 3});
  layer.Reshape();
  EXPECT_EQ(output.dims, (Dims{2, 1, 1, 3}));
  EXPECT_EQ(layer.scale, nullptr);
}

TEST(LrnLayerReleaseWeights, DropsTheScaleBlobAndForwardLeavesTheOutput) {
  LrnLayer layer;
  LayerRig rig(configure(layer, 3, 0.3F, 0.75F, 1.0F));
  rig.add_input({1, 1, 1, 3}, {1, 2, 3});
  rig.add_output({1, 1, 1, 3});
  rig.set_up();
  rig.params.clear();
  layer.ReleaseWeights();
  EXPECT_EQ(layer.scale, nullptr);
  EXPECT_EQ(rig.run(), std::vector<float>(3, 0.0F));
}

TEST(LrnLayerFits, RefusesASizeOfZeroASmallerOutputAndNoChannels) {
  LrnLayer layer;
  configure(layer, 5, 1, 1, 1);
  EXPECT_FALSE(fits(layer));
  LayerRig rig(layer);
  Blob& input = rig.add_input({1, 2, 2, 3});
  EXPECT_TRUE(fits(layer));
  Blob& output = rig.add_output({1, 2, 2, 3});
  EXPECT_TRUE(fits(layer));
  output.count = 11;
  EXPECT_FALSE(fits(layer));
  output.count = 12;
  input.dims[3] = 0;
  EXPECT_FALSE(fits(layer));
  input.dims[3] = 3;
  layer.size = 0;
  EXPECT_FALSE(fits(layer));
}

}  // namespace
}  // namespace ravu::test
