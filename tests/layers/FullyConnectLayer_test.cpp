// Fully connected: sums, the two orientations of the weights, bias runs, batch changes.
#include "layers/FullyConnectLayer.h"

#include <gtest/gtest.h>

#include <limits>
#include <random>

#include "support/blobs.h"
#include "support/reference.h"

namespace ravu::test {
namespace {

// Rows per feature turned into rows per output, or back.
std::vector<float> turned(const std::vector<float>& values, std::uint32_t rows) {
  const std::size_t columns = values.size() / rows;
  std::vector<float> result(values.size());
  for (std::size_t i = 0; i < values.size(); ++i) {
    result[i % columns * rows + i / columns] = values[i];
  }
  return result;
}

struct Case {
  Case(std::uint32_t batch, std::uint32_t features, std::uint32_t outputs, bool transposed = false,
       std::uint32_t bias_count = 0, unsigned seed = 1)
      : n(batch), k(features), m(outputs), rig(layer) {
    weights = random_values(std::size_t{k} * m, seed);
    layer.weights_transposed = transposed;
    layer.weights =
        transposed ? make_blob({m, k, 1, 1}, turned(weights, k)) : make_blob({k, m, 1, 1}, weights);
    layer.has_bias = bias_count > 0;
    bias = random_values(bias_count, seed + 1);
    if (bias_count > 0) layer.bias = make_blob({1, 1, 1, bias_count}, bias);
    values = random_values(std::size_t{n} * k, seed + 2);
    input = &rig.add_input({n, 1, 1, k}, values);
    output = &rig.add_output({n, 1, 1, m});
    rig.set_up();
  }

  bool agrees() {
    std::size_t where;
    const auto sums = reference::fully_connect(static_cast<int>(n), static_cast<int>(k),
                                               static_cast<int>(m), values, weights, bias);
    return reference::close_to(rig.run(), sums, &where);
  }

  std::uint32_t n, k, m;
  FullyConnectLayer layer;
  LayerRig rig;
  std::vector<float> weights, bias, values;
  Blob* input = nullptr;
  Blob* output = nullptr;
};

TEST(FullyConnectLayerForward, AgreesWithTheReferenceOnRandomSizes) {
  std::mt19937 random(42);
  const auto draw = [&](std::uint32_t low, std::uint32_t high) {
    return std::uniform_int_distribution<std::uint32_t>(low, high)(random);
  };
  for (unsigned i = 0; i < 300; ++i) {
    const std::uint32_t m = draw(1, 40);
    Case c(draw(1, 9), draw(1, 200), m, draw(0, 1) == 1, draw(0, 1) * m, i);
    EXPECT_TRUE(c.agrees()) << "case " << i;
  }
}

TEST(FullyConnectLayerForward, TheBiasRunsOverTheOutputInStepsOfItsOwnCount) {
  for (const std::uint32_t bias_count : {1U, 3U, 4U, 7U, 50U}) {
    EXPECT_TRUE(Case(3, 5, 6, false, bias_count).agrees()) << bias_count;
  }
}

TEST(FullyConnectLayerForward, OtherRunModesComputeNothing) {
  Case c(1, 5, 6);
  EXPECT_EQ(c.rig.run(/*mode=*/2), std::vector<float>(6, 0.0F));
}

TEST(FullyConnectLayerForward, TheFixedPointModeWithoutItsLibrarySaysSo) {
  Case c(1, 5, 6);
  c.rig.set_up(/*mode=*/3);
  testing::internal::CaptureStderr();
  EXPECT_TRUE(c.layer.Forward(3));
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "FC fixpointfcop_ not initialized\n");
  EXPECT_EQ(values_of(*c.output), std::vector<float>(6, 0.0F));
}

TEST(FullyConnectLayerForward, WeightsSetUpForTheFixedPointModeAreNotUsedInSinglePrecision) {
  Case c(1, 5, 6);
  c.rig.set_up(/*mode=*/3);
  EXPECT_EQ(c.rig.run(/*mode=*/0), std::vector<float>(6, 0.0F));
  EXPECT_TRUE(c.layer.weights_transposed);
}

TEST(FullyConnectLayerSetup, PreparingTwiceDoesNotTransposeTwice) {
  Case c(2, 5, 6, /*transposed=*/true);
  const auto once = values_of(*c.layer.weights);
  EXPECT_EQ(c.layer.weights->dims, (Dims{5, 6, 1, 1}));
  c.rig.set_up();
  EXPECT_EQ(values_of(*c.layer.weights), once);
  EXPECT_TRUE(c.agrees());
}

TEST(FullyConnectLayerSetup, SwitchingModesTransposesThereAndBack) {
  Case c(2, 5, 6);
  const auto original = values_of(*c.layer.weights);
  c.rig.set_up(/*mode=*/3);
  EXPECT_TRUE(c.layer.weights_transposed);
  EXPECT_EQ(c.layer.weights->dims, (Dims{6, 5, 1, 1}));
  EXPECT_EQ(values_of(*c.layer.weights), turned(original, 5));
  c.rig.set_up(/*mode=*/0);
  EXPECT_FALSE(c.layer.weights_transposed);
  EXPECT_EQ(values_of(*c.layer.weights), original);
  EXPECT_TRUE(c.agrees());
}

TEST(FullyConnectLayerSetup, TransposedWeightsNeedNoTurnForTheFixedPointMode) {
  FullyConnectLayer layer;
  layer.weights_transposed = true;
  layer.weights = make_blob({2, 3, 1, 1}, {0, 1, 2, 3, 4, 5});
  LayerRig rig(layer);
  rig.add_input({1, 1, 1, 3});
  rig.add_output({1, 1, 1, 2});
  const float* data = layer.weights->data;
  rig.set_up(/*mode=*/3);
  EXPECT_EQ(layer.weights->data, data);
  EXPECT_EQ(layer.weights->dims, (Dims{2, 3, 1, 1}));
}

TEST(FullyConnectLayerSetup, PlanarRowsAreInterleavedAndThenTransposed) {
  // One output over 2 channels of 3 values each, stored channel after channel.
  FullyConnectLayer layer;
  layer.weights = make_blob({1, 6, 1, 1}, {0, 1, 2, 3, 4, 5});
  layer.weights->layout = kPlanar;
  LayerRig rig(layer);
  rig.add_input({1, 1, 3, 2}, {1, 1, 1, 1, 1, 1});
  rig.add_output({1, 1, 1, 1});
  rig.set_up(/*mode=*/3);
  EXPECT_EQ(values_of(*layer.weights), (std::vector<float>{0, 3, 1, 4, 2, 5}));
  EXPECT_TRUE(layer.weights_transposed);
  EXPECT_EQ(layer.weights->layout, kInterleaved);
  rig.set_up(/*mode=*/0);
  EXPECT_EQ(layer.weights->dims, (Dims{6, 1, 1, 1}));
  EXPECT_EQ(rig.run(), std::vector<float>{15});
}

TEST(FullyConnectLayerSetup, OtherModesAreRefusedAfterAllocating) {
  FullyConnectLayer layer;
  layer.weights = make_blob({3, 2, 1, 1}, random_values(6, 1));
  LayerRig rig(layer);
  rig.add_input({1, 1, 1, 3});
  const Blob& output = rig.add_output({1, 1, 1, 2});
  EXPECT_FALSE(layer.Setup(2, rig.params));
  EXPECT_NE(output.data, nullptr);
}

TEST(FullyConnectLayerReshape, ABatchChangeTouchesOnlyBatchAndCount) {
  Case c(2, 5, 6);
  reshape(*c.input, *make_shape(4, 1, 1, 5, kInterleaved));
  c.layer.Reshape();
  EXPECT_EQ(c.output->dims, (Dims{4, 1, 1, 6}));
  EXPECT_EQ(c.output->count, 24U);
  c.n = 4;
  c.values = random_values(20, 9);
  std::copy(c.values.begin(), c.values.end(), c.input->data);
  EXPECT_TRUE(c.agrees());
}

TEST(FullyConnectLayerReshape, OtherChangesLeaveTheOutputAlone) {
  Case c(2, 5, 6);
  reshape(*c.input, *make_shape(2, 3, 3, 5, kInterleaved));
  const float* data = c.output->data;
  c.layer.Reshape();
  EXPECT_EQ(c.output->data, data);
}

TEST(FullyConnectLayerReshape, FewerFeaturesThanTheWeightsComputeNothing) {
  Case c(2, 5, 6);
  c.rig.run();
  const auto before = values_of(*c.output);
  reshape(*c.input, *make_shape(2, 1, 1, 3, kInterleaved));
  c.layer.Reshape();
  EXPECT_EQ(c.rig.run(), before);
}

TEST(FullyConnectLayerRelease, ForwardWithoutWeightsLeavesTheOutput) {
  Case c(2, 5, 6, false, 6);
  const auto before = c.rig.run();
  c.layer.ReleaseWeights();
  c.layer.ReleaseWeights();
  EXPECT_EQ(c.layer.weights, nullptr);
  EXPECT_EQ(c.layer.bias, nullptr);
  EXPECT_EQ(c.rig.run(), before);
  c.rig.set_up();
}

TEST(FullyConnectLayerFits, RefusesWhatWouldGoOutOfRange) {
  const auto refused = [](auto change) {
    Case c(2, 5, 6, false, 6);
    EXPECT_TRUE(fits(c.layer));
    change(c);
    const bool fit = static_cast<bool>(fits(c.layer));
    c.rig.run();  // must not touch anything either
    return !fit;
  };
  EXPECT_TRUE(refused([](Case& c) { c.layer.weights->dims = {5, 5, 1, 1}; }));
  EXPECT_TRUE(refused([](Case& c) { c.layer.weights->dims = {6, 6, 1, 1}; }));
  EXPECT_TRUE(refused([](Case& c) { reshape(*c.input, *make_shape(2, 1, 1, 4, 0)); }));
  EXPECT_TRUE(refused([](Case& c) { reshape(*c.output, *make_shape(1, 1, 1, 6, 0)); }));
  EXPECT_TRUE(refused([](Case& c) { reshape(*c.layer.bias, *make_shape(1, 1, 1, 0, 0)); }));
}

}  // namespace
}  // namespace ravu::test
