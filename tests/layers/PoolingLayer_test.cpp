// Pooling: the size rule, the shortened windows, both kernels against the naive reference.
#include "layers/PoolingLayer.h"

#include <gtest/gtest.h>

#include <random>

#include "support/blobs.h"
#include "support/reference.h"

namespace ravu::test {
namespace {

PoolingLayer& configure(PoolingLayer& layer, std::uint32_t mode, std::uint32_t kernel,
                        std::uint32_t stride, std::uint32_t pad = 0) {
  layer.mode = mode;
  layer.kernel_h = layer.kernel_w = kernel;
  layer.stride_h = layer.stride_w = stride;
  layer.pad_h = layer.pad_w = pad;
  return layer;
}

std::vector<float> count_up(std::size_t n) {
  std::vector<float> values(n);
  for (std::size_t i = 0; i < n; ++i) values[i] = static_cast<float>(i);
  return values;
}

std::vector<float> pool(PoolingLayer& layer, std::uint32_t side, const std::vector<float>& values) {
  LayerRig rig(layer);
  const Blob& input = rig.add_input({1, side, side, 1}, values);
  rig.add_output(pooling_shape(layer, input)->dims);
  rig.set_up();
  return rig.run();
}

TEST(PoolingLayerShape, RoundsUpSoThatAPartlyFilledWindowCounts) {
  PoolingLayer layer;
  configure(layer, PoolingLayer::kMax, 3, 2);
  const Shape shape = *pooling_shape(layer, *make_blob({2, 6, 7, 5}));
  EXPECT_EQ(shape.dims, (Dims{2, 3, 3, 5}));
  EXPECT_EQ(shape.count, 90U);
}

TEST(PoolingLayerShape, IsNoneForAStrideOfZero) {
  PoolingLayer layer;
  configure(layer, PoolingLayer::kMax, 3, 0);
  EXPECT_FALSE(pooling_shape(layer, *make_blob({1, 6, 6, 1})));
}

TEST(PoolingLayerShape, ReshapeOfAnUnchangedInputKeepsTheOutput) {
  PoolingLayer layer;
  configure(layer, PoolingLayer::kMax, 2, 2);
  LayerRig rig(layer);
  rig.add_input({1, 4, 4, 1}, count_up(16));
  const Blob& output = rig.add_output({1, 2, 2, 1});
  rig.set_up();
  rig.run();
  const float* before = output.data;
  layer.Reshape();
  EXPECT_EQ(output.data, before);
  EXPECT_EQ(values_of(output), (std::vector<float>{5, 7, 13, 15}));
}

TEST(PoolingLayerForward, TwoByTwoWindowsOnFourByFour) {
  PoolingLayer layer;
  EXPECT_EQ(pool(configure(layer, PoolingLayer::kMax, 2, 2), 4, count_up(16)),
            (std::vector<float>{5, 7, 13, 15}));
}

TEST(PoolingLayerForward, LastWindowsOfFiveByFiveHoldOneRowAndColumn) {
  PoolingLayer layer;
  EXPECT_EQ(pool(configure(layer, PoolingLayer::kMax, 2, 2), 5, count_up(25)),
            (std::vector<float>{6, 8, 9, 16, 18, 19, 21, 23, 24}));
}

TEST(PoolingLayerForward, AverageDividesByTheFullWindow) {
  PoolingLayer layer;
  const auto output = pool(configure(layer, PoolingLayer::kAverage, 3, 1, 1), 4, count_up(16));
  ASSERT_EQ(output.size(), 16U);
  EXPECT_EQ(output[0], (0.0F + 1 + 4 + 5) / 9);
}

TEST(PoolingLayerForward, PaddingShortensTheWindowInsteadOfShiftingIt) {
  PoolingLayer layer;
  // Stride 2, padding 1: the first two windows both start at row and column 0.
  const auto output = pool(configure(layer, PoolingLayer::kMax, 3, 2, 1), 5, count_up(25));
  ASSERT_EQ(output.size(), 9U);
  EXPECT_EQ(output[0], 6);   // rows 0..1, columns 0..1
  EXPECT_EQ(output[4], 12);  // rows 0..2, columns 0..2
}

TEST(PoolingLayerForward, AWindowOfNoElementsIsTheLowestFloatOrZero) {
  PoolingLayer layer;
  // Padding 3 with a window of 2: the first window is shortened to nothing.
  const auto greatest = pool(configure(layer, PoolingLayer::kMax, 2, 1, 3), 4, count_up(16));
  EXPECT_EQ(greatest.front(), -3.4028235e38F);
  const auto average = pool(configure(layer, PoolingLayer::kAverage, 2, 1, 3), 4, count_up(16));
  EXPECT_EQ(average.front(), 0.0F);
}

TEST(PoolingLayerForward, AnUnknownModeComputesNothing) {
  PoolingLayer layer;
  EXPECT_EQ(pool(configure(layer, 2, 2, 2), 4, count_up(16)), std::vector<float>(4, 0.0F));
}

TEST(PoolingLayerForward, AgreesBitForBitWithTheReference) {
  std::mt19937 random(51);
  const auto draw = [&](int low, int high) {
    return std::uniform_int_distribution<int>(low, high)(random);
  };
  for (int i = 0; i < 300; ++i) {
    const reference::Pooling p{draw(1, 2), draw(3, 9), draw(3, 9), draw(1, 37),
                               draw(1, 3), draw(1, 3), draw(0, 2), draw(0, 2)};
    PoolingLayer layer;
    const bool maximum = draw(0, 1) == 0;
    configure(layer, maximum ? PoolingLayer::kMax : PoolingLayer::kAverage,
              static_cast<std::uint32_t>(p.kernel), static_cast<std::uint32_t>(p.stride));
    layer.pad_h = static_cast<std::uint32_t>(p.pad_h);
    layer.pad_w = static_cast<std::uint32_t>(p.pad_w);
    const auto values =
        random_values(static_cast<std::size_t>(p.batch * p.height * p.width * p.channels), 7U + i);
    LayerRig rig(layer);
    const Blob& input =
        rig.add_input({static_cast<std::uint32_t>(p.batch), static_cast<std::uint32_t>(p.height),
                       static_cast<std::uint32_t>(p.width), static_cast<std::uint32_t>(p.channels)},
                      values);
    rig.add_output(pooling_shape(layer, input)->dims);
    rig.set_up();
    EXPECT_EQ(rig.run(), reference::pool(p, maximum, values)) << "case " << i;
  }
}

TEST(PoolingLayerFits, RefusesZeroAndNegativeSizes) {
  PoolingLayer layer;
  LayerRig rig(layer);
  rig.add_input({1, 4, 4, 1});
  rig.add_output({1, 2, 2, 1});
  EXPECT_TRUE(fits(configure(layer, PoolingLayer::kMax, 2, 2)));
  EXPECT_FALSE(fits(configure(layer, PoolingLayer::kMax, 0, 2)));
  EXPECT_FALSE(fits(configure(layer, PoolingLayer::kMax, 2, 0)));
  EXPECT_FALSE(fits(configure(layer, PoolingLayer::kMax, 2, 2, 0xFFFFFFFFU)));
}

TEST(PoolingLayerFits, RefusesAnOutputWithOtherChannels) {
  PoolingLayer layer;
  LayerRig rig(layer);
  rig.add_input({1, 4, 4, 3});
  rig.add_output({1, 2, 2, 2});
  EXPECT_FALSE(fits(configure(layer, PoolingLayer::kMax, 2, 2)));
}

}  // namespace
}  // namespace ravu::test
