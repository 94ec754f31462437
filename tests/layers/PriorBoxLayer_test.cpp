// Prior boxes: sizes, steps, order, variances, and what happens when counts do not agree.
#include "layers/PriorBoxLayer.h"

#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <random>

#include "support/blobs.h"
#include "support/reference.h"

namespace ravu::test {
namespace {

// A layer with one box of 30 pixels per cell of an image of 300 x 300, centred in its cell.
struct Priors {
  Priors() : rig(layer) {
    layer.min_sizes = {30};
    layer.variances = {0.1F};
    layer.num_priors = 1;
    layer.img_h = layer.img_w = 300;
    layer.offset = 0.5F;
  }

  // Both rows of the output on a feature map and, when it has a size, an image.
  std::vector<float> compute(std::uint32_t map_h, std::uint32_t map_w, std::uint32_t image_h = 0,
                             std::uint32_t image_w = 0) {
    Blob& map = rig.add_input({1, map_h, map_w, 8});
    if (image_h != 0) rig.add_input({1, image_h, image_w, 3});
    rig.add_output(prior_box_shape(layer, map, kInterleaved)->dims);
    rig.set_up();
    return rig.run();
  }

  PriorBoxLayer layer;
  LayerRig rig;
};

std::vector<float> first(const std::vector<float>& values, std::size_t n) {
  return {values.begin(), values.begin() + static_cast<std::ptrdiff_t>(n)};
}

std::vector<float> box_around(float x, float y, float width, float height, float image) {
  return {(x - width * 0.5F) / image, (y - height * 0.5F) / image, (x + width * 0.5F) / image,
          (y + height * 0.5F) / image};
}

void expect_box(const std::vector<float>& values, std::size_t index,
                const std::vector<float>& box) {
  for (std::size_t k = 0; k < 4; ++k) EXPECT_NEAR(values[index * 4 + k], box[k], 1e-5) << k;
}

TEST(PriorBoxLayerSetup, MinMaxAndRatiosOnOneCell) {
  Priors priors;
  priors.layer.max_sizes = {60};
  priors.layer.aspect_ratios = {1.0F, 2.0F, 0.5F};
  priors.layer.num_priors = 4;
  const auto values = priors.compute(1, 1);
  ASSERT_EQ(values.size(), 32U);
  expect_box(values, 0, box_around(150, 150, 30, 30, 300));
  expect_box(values, 1, box_around(150, 150, 42.426407F, 42.426407F, 300));
  expect_box(values, 2, box_around(150, 150, 42.426407F, 21.213203F, 300));
  expect_box(values, 3, box_around(150, 150, 21.213203F, 42.426407F, 300));
}

TEST(PriorBoxLayerSetup, SizesAreCutToWholePixels) {
  Priors whole, fraction;
  fraction.layer.min_sizes = {30.7F};
  EXPECT_EQ(fraction.compute(2, 2), whole.compute(2, 2));
}

TEST(PriorBoxLayerSetup, MaxSizesAreCutToWholePixels) {
  Priors whole, fraction;
  whole.layer.num_priors = fraction.layer.num_priors = 2;
  whole.layer.max_sizes = {60};
  fraction.layer.max_sizes = {60.99F};
  EXPECT_EQ(fraction.compute(2, 2), whole.compute(2, 2));
}

TEST(PriorBoxLayerSetup, CellsFollowRowByRow) {
  Priors priors;
  const auto values = priors.compute(2, 3);
  for (std::size_t h = 0; h < 2; ++h) {
    for (std::size_t w = 0; w < 3; ++w) {
      expect_box(values, h * 3 + w,
                 box_around(50 + 100 * static_cast<float>(w), 75 + 150 * static_cast<float>(h), 30,
                            30, 300));
    }
  }
}

TEST(PriorBoxLayerSetup, WithoutAnOffsetTheFirstBoxReachesBelowZero) {
  Priors priors;
  priors.layer.offset = 0.0F;
  EXPECT_EQ(first(priors.compute(1, 1), 4), (std::vector<float>{-0.05F, -0.05F, 0.05F, 0.05F}));
}

TEST(PriorBoxLayerSetup, ClipKeepsCoordinatesWithinZeroAndOne) {
  Priors priors;
  priors.layer.offset = 0.0F;
  priors.layer.clip = true;
  priors.layer.min_sizes = {1000};
  EXPECT_EQ(first(priors.compute(1, 1), 4), (std::vector<float>{0, 0, 1, 1}));
}

TEST(PriorBoxLayerSetup, ClipTurnsNotANumberIntoZeroAndLeavesTheVariances) {
  Priors priors;
  priors.layer.clip = true;
  priors.layer.aspect_ratios = {-1.0F};  // its root is not a number
  priors.layer.num_priors = 2;
  priors.layer.variances = {7.0F};
  const auto values = priors.compute(1, 1);
  EXPECT_EQ(values[4], 0.0F);
  EXPECT_EQ(values[8], 7.0F);
}

TEST(PriorBoxLayerSetup, OneImageSideOfZeroTakesBothFromTheSecondInput) {
  Priors priors;
  priors.layer.img_w = 0;
  expect_box(priors.compute(1, 1, 60, 120), 0,
             {(60 - 15) / 120.0F, (30 - 15) / 60.0F, (60 + 15) / 120.0F, (30 + 15) / 60.0F});
}

TEST(PriorBoxLayerSetup, GivenImageSidesWinOverTheSecondInput) {
  Priors with_image, without;
  EXPECT_EQ(with_image.compute(2, 2, 60, 120), without.compute(2, 2));
}

TEST(PriorBoxLayerSetup, OneStepOfZeroDerivesBoth) {
  Priors derived, one;
  one.layer.step_h = 16;
  EXPECT_EQ(one.compute(3, 5), derived.compute(3, 5));
  Priors given;
  given.layer.step_h = 16;
  given.layer.step_w = 8;
  expect_box(given.compute(3, 5), 6, box_around(12, 24, 30, 30, 300));
}

TEST(PriorBoxLayerSetup, NegativeIntegersStayNegative) {
  Priors priors;
  priors.layer.step_h = priors.layer.step_w = static_cast<std::uint32_t>(-100);
  expect_box(priors.compute(1, 1), 0, box_around(-50, -50, 30, 30, 300));
}

TEST(PriorBoxLayerSetup, FlipAddsNoBoxes) {
  Priors flipped, plain;
  for (Priors* priors : {&flipped, &plain}) {
    priors->layer.aspect_ratios = {2.0F};
    priors->layer.num_priors = 3;
  }
  flipped.layer.flip = true;
  EXPECT_EQ(flipped.compute(2, 2), plain.compute(2, 2));
}

TEST(PriorBoxLayerSetup, RatiosWithinAMillionthOfOneAreSkipped) {
  Priors near, plain;
  near.layer.aspect_ratios = {1.0F, 1.0000005F, 0.9999995F};
  EXPECT_EQ(near.compute(2, 2), plain.compute(2, 2));
}

TEST(PriorBoxLayerSetup, TheProductOfTheSizesWrapsIn32Bits) {
  Priors priors;
  priors.layer.min_sizes = {65536};
  priors.layer.max_sizes = {65537};  // 2^32 + 65536
  priors.layer.num_priors = 2;
  expect_box(priors.compute(1, 1), 1, box_around(150, 150, 256, 256, 300));
}

TEST(PriorBoxLayerSetup, ANegativeProductGivesNotANumber) {
  Priors priors;
  priors.layer.min_sizes = {50000};
  priors.layer.max_sizes = {50000};
  priors.layer.num_priors = 2;
  EXPECT_TRUE(std::isnan(priors.compute(1, 1)[4]));
}

TEST(PriorBoxLayerSetup, SizesOutOfRangeAreTheSmallestInteger) {
  for (const float size : {3e9F, -3e9F, std::numeric_limits<float>::quiet_NaN()}) {
    Priors priors;
    priors.layer.min_sizes = {size};
    EXPECT_EQ(priors.compute(1, 1)[0], (150.0F + 1073741824.0F) / 300.0F) << size;
  }
}

TEST(PriorBoxLayerSetup, OneVarianceFillsTheWholeSecondRow) {
  Priors priors;
  priors.layer.num_priors = 4;
  const auto values = priors.compute(2, 2);
  for (std::size_t i = 64; i < 128; ++i) EXPECT_EQ(values[i], 0.1F);
}

TEST(PriorBoxLayerSetup, FourVariancesAreWrittenOncePerCellOnly) {
  Priors priors;
  priors.layer.num_priors = 4;
  priors.layer.variances = {0.1F, 0.2F, 0.3F, 0.4F, 99.0F};
  const auto values = priors.compute(2, 2);
  for (std::size_t i = 0; i < 64; ++i) {
    EXPECT_EQ(values[64 + i], i < 16 ? priors.layer.variances[i % 4] : 0.0F) << i;
  }
}

TEST(PriorBoxLayerSetup, WithoutMinSizesThereAreNoBoxesButVariances) {
  Priors priors;
  priors.layer.min_sizes.clear();
  priors.layer.aspect_ratios = {2.0F};
  EXPECT_EQ(priors.compute(1, 1), (std::vector<float>{0, 0, 0, 0, 0.1F, 0.1F, 0.1F, 0.1F}));
}

TEST(PriorBoxLayerSetup, MoreBoxesThanNumPriorsRunIntoTheVarianceRow) {
  Priors priors;
  priors.layer.min_sizes = {30, 60};
  priors.layer.variances = {1, 2, 3, 4};
  const auto values = priors.compute(1, 2);  // room for two boxes and their variances; four made
  expect_box(values, 1, box_around(75, 150, 60, 60, 300));
  EXPECT_EQ(values, (std::vector<float>{values[0], values[1], values[2], values[3], values[4],
                                        values[5], values[6], values[7], 1, 2, 3, 4, 1, 2, 3, 4}));
}

TEST(PriorBoxLayerSetup, ASecondSetUpNeverWritesPastItsOutput) {
  Priors priors;
  const auto before = priors.compute(2, 2);
  Blob& map = *priors.layer.inputs[0];
  reshape(map, *make_blob({1, 50, 50, 8}));
  priors.layer.Reshape();
  priors.rig.set_up();
  EXPECT_EQ(priors.rig.run(), before);
  reshape(map, *make_blob({1, 1, 1, 8}));
  priors.rig.set_up();  // fewer cells: computes into the rows that are there
  const auto after = priors.rig.run();
  expect_box(after, 0, box_around(150, 150, 30, 30, 300));
  expect_box(after, 1, std::vector<float>(before.begin() + 4, before.begin() + 8));
  EXPECT_EQ(after.size(), before.size());
}

TEST(PriorBoxLayerShape, StaysWhenTheBatchChanges) {
  Priors priors;
  const auto before = priors.compute(2, 2, 300, 300);
  for (Blob* input : priors.layer.inputs) {
    Shape shape = *input;
    shape.dims[0] = 3;
    shape.count *= 3;
    reshape(*input, shape);
  }
  priors.layer.Reshape();
  EXPECT_EQ(priors.layer.outputs.back()->dims, (Dims{1, 2, 1, 16}));
  EXPECT_EQ(priors.rig.run(), before);
}

TEST(PriorBoxLayerShape, HasTwoRowsOfFourValuesPerPrior) {
  PriorBoxLayer layer;
  layer.num_priors = 6;
  const auto shape = prior_box_shape(layer, *make_blob({2, 3, 5, 7}), kPlanar);
  ASSERT_TRUE(shape);
  EXPECT_EQ(shape->dims, (Dims{1, 2, 1, 360}));
  EXPECT_EQ(shape->count, 720U);
  EXPECT_EQ(shape->layout, kPlanar);
}

TEST(PriorBoxLayerShape, IsNoneWhenItWouldBeTooLarge) {
  PriorBoxLayer layer;
  Shape map;
  for (const std::uint32_t side : {1U, 3U, 65535U, 0x7FFFFFFFU}) {
    map.dims = {1, side, side, 1};
    layer.num_priors = 0xFFFFFFFFU;
    EXPECT_FALSE(prior_box_shape(layer, map, kInterleaved)) << side;
  }
  layer.num_priors = 1;
  map.dims = {1, 0x7FFFFFFFU, 0x7FFFFFFFU, 1};
  EXPECT_FALSE(prior_box_shape(layer, map, kInterleaved));
}

TEST(PriorBoxLayerSetup, AgreesBitForBitWithTheReference) {
  std::mt19937 random(55);
  const auto draw = [&](int low, int high) {
    return std::uniform_int_distribution<int>(low, high)(random);
  };
  const auto draw_floats = [&](int n, float low, float high) {
    std::vector<float> values(static_cast<std::size_t>(n));
    for (float& value : values) {
      value = std::uniform_real_distribution<float>(low, high)(random);
    }
    return values;
  };
  const auto size = [](int value) { return static_cast<std::uint32_t>(value); };
  for (int i = 0; i < 300; ++i) {
    reference::PriorBoxes p{draw(1, 6),
                            draw(1, 6),
                            draw(1, 400),
                            draw(1, 400),
                            draw(0, 2),
                            draw(0, 2),
                            draw_floats(1, -1, 1)[0],
                            draw(0, 1) == 0,
                            {},
                            {},
                            {},
                            {}};
    p.min_sizes = draw_floats(draw(0, 3), -10, 300);
    if (draw(0, 1) == 0) p.max_sizes = draw_floats(static_cast<int>(p.min_sizes.size()), -10, 300);
    p.aspect_ratios = draw_floats(draw(0, 3), 0.1F, 4);
    if (draw(0, 1) == 0) p.aspect_ratios.push_back(1.0F);
    p.variances = draw_floats(draw(0, 1) == 0 ? 1 : 4, 0, 1);
    const int num_priors = static_cast<int>(p.min_sizes.size()) * 5 + 1;
    Priors priors;
    PriorBoxLayer& layer = priors.layer;
    layer.min_sizes = p.min_sizes;
    layer.max_sizes = p.max_sizes;
    layer.aspect_ratios = p.aspect_ratios;
    layer.variances = p.variances;
    layer.num_priors = size(num_priors);
    layer.clip = p.clip;
    layer.img_h = size(p.image_h);
    layer.img_w = size(p.image_w);
    layer.step_h = size(p.step_h);
    layer.step_w = size(p.step_w);
    layer.offset = p.offset;
    EXPECT_EQ(bits_of(priors.compute(size(p.map_h), size(p.map_w))),
              bits_of(reference::prior_boxes(p, num_priors)))
        << "case " << i;
  }
}

TEST(PriorBoxLayerFits, RefusesListsThatWouldBeReadPastTheirEnds) {
  Priors priors;
  EXPECT_FALSE(fits(priors.layer));  // no feature map
  priors.rig.add_input({1, 2, 2, 8});
  EXPECT_TRUE(fits(priors.layer));
  for (const std::size_t n : {0U, 2U, 3U}) {
    priors.layer.variances.assign(n, 0.1F);
    EXPECT_FALSE(fits(priors.layer)) << n;
  }
  priors.layer.variances.assign(4, 0.1F);
  EXPECT_TRUE(fits(priors.layer));
  priors.layer.min_sizes = {1, 2, 3};
  priors.layer.max_sizes = {1, 2};
  EXPECT_FALSE(fits(priors.layer));
}

TEST(PriorBoxLayerFits, NeedsTheImageOnlyForItsSize) {
  Priors priors;
  priors.rig.add_input({1, 2, 2, 8});
  priors.layer.img_h = 0;
  EXPECT_FALSE(fits(priors.layer));
  priors.rig.add_input({1, 300, 300, 3});
  EXPECT_TRUE(fits(priors.layer));
}

TEST(PriorBoxLayerFits, RefusesBoxesOrVariancesBeyondTheOutput) {
  Priors priors;
  priors.rig.add_input({1, 2, 2, 8});
  Blob& output = priors.rig.add_output({1, 2, 1, 16});
  EXPECT_TRUE(fits(priors.layer));
  priors.layer.min_sizes = {1, 2};  // up to the very end
  EXPECT_TRUE(fits(priors.layer));
  priors.layer.min_sizes = {1, 2, 3};
  EXPECT_FALSE(fits(priors.layer));
  priors.layer.min_sizes = {1};
  output.count = 31;
  EXPECT_FALSE(fits(priors.layer));
  output.dims[3] = 4;
  output.count = 16;
  priors.layer.variances = {1, 2, 3, 4};
  EXPECT_FALSE(fits(priors.layer));
}

}  // namespace
}  // namespace ravu::test
