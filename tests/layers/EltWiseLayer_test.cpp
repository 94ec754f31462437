// Element-wise: the sum, what the other operations leave, the coefficients.
#include "layers/EltWiseLayer.h"

#include <gtest/gtest.h>

#include <random>

#include "support/blobs.h"
#include "support/reference.h"

namespace ravu::test {
namespace {

TEST(EltWiseLayerForward, AddsTheInputs) {
  EltWiseLayer layer;
  layer.operation = EltWiseLayer::kSum;
  LayerRig rig(layer);
  rig.add_input({1, 1, 1, 3}, {1, 2, 3});
  rig.add_input({1, 1, 1, 3}, {10, 20, 30});
  rig.add_output({1, 1, 1, 3});
  rig.set_up();
  EXPECT_EQ(rig.run(), (std::vector<float>{11, 22, 33}));
}

TEST(EltWiseLayerForward, ProductAndMaximumLeaveTheOutput) {
  for (const std::int32_t operation : {EltWiseLayer::kProduct, EltWiseLayer::kMax, 1, -1}) {
    EltWiseLayer layer;
    layer.operation = operation;
    LayerRig rig(layer);
    rig.add_input({1, 1, 1, 2}, {1, 2});
    rig.add_input({1, 1, 1, 2}, {10, 20});
    assign(rig.add_output({1, 1, 1, 2}), std::vector<float>{7, 8}.data());
    rig.set_up();
    EXPECT_EQ(rig.run(), (std::vector<float>{7, 8})) << operation;
  }
}

TEST(EltWiseLayerForward, TheOperationIsMaximumUntilItIsSet) {
  EXPECT_EQ(EltWiseLayer().operation, 2);
}

TEST(EltWiseLayerForward, CoefficientsWeighTheInputsWhileTheirNumberIsRight) {
  EltWiseLayer layer;
  layer.operation = EltWiseLayer::kSum;
  LayerRig rig(layer);
  rig.add_input({1, 1, 1, 1}, {1});
  rig.add_input({1, 1, 1, 1}, {10});
  rig.add_output({1, 1, 1, 1});
  rig.set_up();
  layer.coefficients = {2, 3};
  EXPECT_EQ(rig.run(), std::vector<float>{32});
  layer.coefficients = {5};
  EXPECT_EQ(rig.run(), std::vector<float>{11});
  EXPECT_EQ(layer.coefficients, (std::vector<float>{1, 1}));
}

TEST(EltWiseLayerReleaseWeights, EmptiesTheCoefficientsAndForwardRefillsThemWithOnes) {
  EltWiseLayer layer;
  layer.operation = EltWiseLayer::kSum;
  LayerRig rig(layer);
  rig.add_input({1, 1, 1, 1}, {1});
  rig.add_input({1, 1, 1, 1}, {10});
  rig.add_output({1, 1, 1, 1});
  rig.set_up();
  layer.coefficients = {2, 3};
  layer.ReleaseWeights();
  EXPECT_TRUE(layer.coefficients.empty());
  EXPECT_EQ(rig.run(), std::vector<float>{11});
  EXPECT_EQ(layer.coefficients, (std::vector<float>{1, 1}));
}

TEST(EltWiseLayerForward, EveryOutputGetsTheSumOverItsOwnCount) {
  EltWiseLayer layer;
  layer.operation = EltWiseLayer::kSum;
  LayerRig rig(layer);
  rig.add_input({1, 1, 1, 3}, {1, 2, 3});
  rig.add_input({1, 1, 1, 3}, {10, 20, 30});
  const Blob& first = rig.add_output({1, 1, 1, 2});
  rig.add_output({1, 1, 1, 3});
  rig.set_up();
  EXPECT_EQ(rig.run(), (std::vector<float>{11, 22, 33}));
  EXPECT_EQ(values_of(first), (std::vector<float>{11, 22}));
}

TEST(EltWiseLayerForward, TheSumStartsFromZero) {
  // 0 + -0 is 0, where a lone -0 would stay.
  EltWiseLayer layer;
  layer.operation = EltWiseLayer::kSum;
  LayerRig rig(layer);
  rig.add_input({1, 1, 1, 1}, {-0.0F});
  rig.add_output({1, 1, 1, 1});
  rig.set_up();
  EXPECT_EQ(bits_of(rig.run()), bits_of({0.0F}));
}

TEST(EltWiseLayerForward, AnOutputOfNoElementsIsLeftAlone) {
  EltWiseLayer layer;
  layer.operation = EltWiseLayer::kSum;
  LayerRig rig(layer);
  rig.add_input({1, 1, 1, 2}, {1, 2});
  rig.add_output({1, 1, 1, 0});
  rig.set_up();
  EXPECT_EQ(rig.run(), std::vector<float>{});
}

TEST(EltWiseLayerForward, AgreesBitForBitWithTheReferenceInEveryRunMode) {
  std::mt19937 random(461);
  for (unsigned i = 0; i < 300; ++i) {
    EltWiseLayer layer;
    layer.operation = EltWiseLayer::kSum;
    LayerRig rig(layer);
    const std::size_t k = 1 + random() % 5;
    const auto n = static_cast<std::uint32_t>(1 + random() % 200);
    std::vector<std::vector<float>> values;
    for (std::size_t j = 0; j < k; ++j) {
      values.push_back(values_with_extremes(n, i * 7 + static_cast<unsigned>(j)));
      rig.add_input({1, 1, 1, n}, values.back());
    }
    if (random() % 2 == 0) {
      layer.outputs.push_back(layer.inputs[random() % k]);  // in place
    } else {
      rig.add_output({1, 1, 1, n});
    }
    rig.set_up();
    const std::vector<float> ones(k, 1);
    EXPECT_EQ(bits_of(rig.run(i % 5)), bits_of(reference::weighted_sum(values, ones, n)))
        << "case " << i;
  }
}

TEST(EltWiseLayerForward, LeavesTheOutputBeforeTheSetUp) {
  EltWiseLayer layer;
  layer.operation = EltWiseLayer::kSum;
  LayerRig rig(layer);
  rig.add_input({1, 1, 1, 1}, {1});
  rig.add_input({1, 1, 1, 1});
  assign(rig.add_output({1, 1, 1, 1}), nullptr);
  EXPECT_EQ(rig.run(), std::vector<float>{0});
}

TEST(EltWiseLayerReshape, TheOutputFollowsTheLastInput) {
  EltWiseLayer layer;
  LayerRig rig(layer);
  rig.add_input({1, 2, 2, 3});
  Blob& last = rig.add_input({1, 2, 2, 3});
  const Blob& output = rig.add_output({1, 2, 2, 3});
  rig.set_up();
  reshape(last, *make_shape(1, 4, 2, 3, kInterleaved));
  layer.Reshape();
  EXPECT_EQ(output.dims, (Dims{1, 4, 2, 3}));
}

TEST(EltWiseLayerFits, RefusesInputsSmallerThanTheOutputOfASum) {
  EltWiseLayer layer;
  EXPECT_FALSE(fits(layer));
  LayerRig rig(layer);
  rig.add_input({1, 2, 2, 3});
  Blob& last = rig.add_input({1, 2, 2, 4});
  rig.add_output({1, 2, 2, 3});
  layer.operation = EltWiseLayer::kSum;
  EXPECT_TRUE(fits(layer));
  last.count = 11;
  EXPECT_FALSE(fits(layer));
  layer.operation = EltWiseLayer::kMax;
  EXPECT_TRUE(fits(layer));
}

}  // namespace
}  // namespace ravu::test
