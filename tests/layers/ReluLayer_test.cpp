// Rectifier: values, sharing of storage, shape.
#include "layers/ReluLayer.h"

#include <gtest/gtest.h>

#include <cmath>
#include <limits>

#include "support/blobs.h"
#include "support/reference.h"

namespace ravu::test {
namespace {

TEST(ReluLayerForward, ZeroGivesZeroAndNegativesGiveZeroWithoutASlope) {
  ReluLayer layer;
  LayerRig rig(layer);
  rig.add_input({1, 1, 1, 4}, {-2, 0, 3, -0.5F});
  rig.add_output({1, 1, 1, 4});
  rig.set_up();
  EXPECT_EQ(rig.run(), (std::vector<float>{0, 0, 3, 0}));
}

TEST(ReluLayerForward, ASlopeAboveOneKeepsTheLargerOfBoth) {
  ReluLayer layer;
  layer.negative_slope = 2.0F;
  LayerRig rig(layer);
  rig.add_input({1, 1, 1, 3}, {-2, 0, 3});
  rig.add_output({1, 1, 1, 3});
  rig.set_up();
  EXPECT_EQ(rig.run(), (std::vector<float>{-2, 0, 6}));
}

TEST(ReluLayerForward, NotANumberStaysNotANumber) {
  ReluLayer layer;
  LayerRig rig(layer);
  rig.add_input({1, 1, 1, 17}, std::vector<float>(17, std::numeric_limits<float>::quiet_NaN()));
  rig.add_output({1, 1, 1, 17});
  rig.set_up();
  for (const float y : rig.run()) EXPECT_TRUE(std::isnan(y));
}

TEST(ReluLayerForward, AgreesWithTheReferenceForEveryLengthAndRunMode) {
  for (std::uint32_t n = 1; n < 70; ++n) {
    for (const float slope : {0.0F, 0.1F, 1.0F, -0.5F, 1.5F}) {
      ReluLayer layer;
      layer.negative_slope = slope;
      LayerRig rig(layer);
      const auto values = random_values(n, n);
      rig.add_input({1, 1, 1, n}, values);
      rig.add_output({1, 1, 1, n});
      rig.set_up();
      EXPECT_EQ(rig.run(n % 5), reference::relu(values, slope)) << n << " " << slope;
    }
  }
}

TEST(ReluLayerSetup, TheOutputSharesTheInputsStorage) {
  ReluLayer layer;
  LayerRig rig(layer);
  const Blob& input = rig.add_input({1, 2, 2, 3});
  const Blob& output = rig.add_output({1, 2, 2, 3});
  rig.set_up();
  ASSERT_NE(output.data, nullptr);
  EXPECT_EQ(output.data, input.data);
  EXPECT_EQ(layer.owned_count, 1U);
  EXPECT_EQ(layer.owned[0], &input);
}

TEST(ReluLayerReshape, TheOutputTakesTheInputsDims) {
  ReluLayer layer;
  LayerRig rig(layer);
  Blob& input = rig.add_input({1, 2, 2, 3});
  const Blob& output = rig.add_output({1, 2, 2, 3});
  rig.set_up();
  reshape(input, *make_shape(2, 4, 2, 3, kInterleaved));
  layer.Reshape();
  EXPECT_EQ(output.dims, (Dims{2, 4, 2, 3}));
  EXPECT_EQ(output.data, nullptr);  // until the network binds its borrowers
}

TEST(ReluLayerFits, RefusesAnOutputSmallerThanTheInput) {
  ReluLayer layer;
  LayerRig rig(layer);
  rig.add_input({1, 2, 2, 3});
  rig.add_output({1, 2, 2, 2});
  EXPECT_FALSE(fits(layer));
}

}  // namespace
}  // namespace ravu::test
