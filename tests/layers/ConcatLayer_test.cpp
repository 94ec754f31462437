// Concatenation: the order of the channels, the shape rule, inputs that do not match.
#include "layers/ConcatLayer.h"

#include <gtest/gtest.h>

#include <random>

#include "support/blobs.h"
#include "support/reference.h"

namespace ravu::test {
namespace {

TEST(ConcatLayerForward, EachPixelHoldsTheInputsChannelsInTurn) {
  ConcatLayer layer;
  LayerRig rig(layer);
  rig.add_input({1, 2, 2, 3}, {1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12});
  rig.add_input({1, 2, 2, 1}, {-1, -2, -3, -4});
  rig.add_output({1, 2, 2, 4});
  rig.set_up();
  EXPECT_EQ(rig.run(), (std::vector<float>{1, 2, 3, -1, 4, 5, 6, -2, 7, 8, 9, -3, 10, 11, 12, -4}));
}

TEST(ConcatLayerForward, ASingleInputIsCopied) {
  ConcatLayer layer;
  LayerRig rig(layer);
  rig.add_input({1, 1, 2, 2}, {1, 2, 3, 4});
  rig.add_output({1, 1, 2, 2});
  rig.set_up();
  EXPECT_EQ(rig.run(), (std::vector<float>{1, 2, 3, 4}));
}

TEST(ConcatLayerForward, TheOutputsCountDecidesAndTheLastPixelMayBeCut) {
  ConcatLayer layer;
  LayerRig rig(layer);
  // Heights and widths differ; what the output asks for is there.
  rig.add_input({1, 1, 3, 2}, {1, 2, 3, 4, 5, 6});
  rig.add_input({1, 2, 1, 1}, {-1, -2});
  rig.add_output({1, 1, 1, 5});
  rig.set_up();
  EXPECT_EQ(rig.run(), (std::vector<float>{1, 2, -1, 3, 4}));
}

TEST(ConcatLayerForward, SeveralThreadsCopyTheSame) {
  const auto run = [](std::size_t threads) {
    ConcatLayer layer;
    LayerRig rig(layer);
    rig.workspace.workers().set_threads(threads);
    rig.add_input({1, 90, 90, 7}, random_values(90 * 90 * 7, 1));
    rig.add_input({1, 90, 90, 12}, random_values(90 * 90 * 12, 2));
    rig.add_output({1, 90, 90, 19});
    rig.set_up();
    return rig.run();
  };
  const auto alone = run(1);
  EXPECT_EQ(alone[89 * 90 * 19 + 7], random_values(90 * 90 * 12, 2)[89 * 90 * 12]);
  for (const std::size_t threads : {2, 3, 4}) EXPECT_EQ(run(threads), alone) << threads;
}

TEST(ConcatLayerForward, AnInputWithoutChannelsIsSkipped) {
  ConcatLayer layer;
  LayerRig rig(layer);
  rig.add_input({1, 1, 2, 0});
  rig.add_input({1, 1, 2, 1}, {1, 2});
  rig.add_output({1, 1, 2, 1});
  rig.set_up();
  EXPECT_EQ(rig.run(), (std::vector<float>{1, 2}));
}

TEST(ConcatLayerForward, AgreesWithTheReferenceInEveryRunMode) {
  std::mt19937 random(611);
  const auto draw = [&](std::uint32_t low, std::uint32_t high) {
    return std::uniform_int_distribution<std::uint32_t>(low, high)(random);
  };
  for (unsigned i = 0; i < 300; ++i) {
    ConcatLayer layer;
    LayerRig rig(layer);
    const Dims plane{draw(1, 3), draw(1, 6), draw(1, 6), 0};
    const std::size_t pixels = std::size_t{plane[0]} * plane[1] * plane[2];
    std::vector<std::vector<float>> values;
    std::vector<std::size_t> channels;
    for (std::uint32_t j = draw(1, 5); j > 0; --j) {
      channels.push_back(draw(1, 40));
      values.push_back(random_values(pixels * channels.back(), i * 5 + j));
      rig.add_input({plane[0], plane[1], plane[2], static_cast<std::uint32_t>(channels.back())},
                    values.back());
    }
    rig.add_output(concat_shape(layer, *layer.inputs.front())->dims);
    rig.set_up();
    EXPECT_EQ(rig.run(i % 5), reference::concat(values, channels, pixels)) << "case " << i;
  }
}

TEST(ConcatLayerForward, LeavesTheOutputBeforeTheSetUp) {
  ConcatLayer layer;
  LayerRig rig(layer);
  rig.add_input({1, 1, 1, 1}, {1});
  rig.add_input({1, 1, 1, 1});
  assign(rig.add_output({1, 1, 1, 2}), nullptr);
  EXPECT_EQ(rig.run(), (std::vector<float>{0, 0}));
}

TEST(ConcatLayerShape, AddsUpChannelsAndCountsOverTheReferencesDims) {
  ConcatLayer layer;
  LayerRig rig(layer);
  rig.add_input({2, 3, 4, 64});
  rig.add_input({2, 5, 6, 32});
  const auto shape = concat_shape(layer, *layer.inputs.front());
  ASSERT_TRUE(shape);
  EXPECT_EQ(shape->dims, (Dims{2, 3, 4, 96}));
  EXPECT_EQ(shape->count, 2U * 3 * 4 * 64 + 2 * 5 * 6 * 32);  // not the product of the dims
}

TEST(ConcatLayerShape, IsNoneWhenASumIsTooLarge) {
  ConcatLayer layer;
  LayerRig rig(layer);
  rig.add_input({1, 1, 1, 0x7FFFFFFF});
  EXPECT_TRUE(concat_shape(layer, *layer.inputs.front()));
  Blob& second = rig.add_input({1, 1, 1, 1});
  EXPECT_FALSE(concat_shape(layer, *layer.inputs.front()));
  second.count = 0;
  EXPECT_FALSE(concat_shape(layer, *layer.inputs.front()));
}

TEST(ConcatLayerReshape, UnchangedInputsKeepTheOutputsStorage) {
  ConcatLayer layer;
  LayerRig rig(layer);
  rig.add_input({1, 1, 1, 1}, {1});
  rig.add_input({1, 1, 1, 1}, {2});
  const Blob& output = rig.add_output({1, 1, 1, 2});
  rig.set_up();
  rig.run();
  const float* before = output.data;
  layer.Reshape();
  EXPECT_EQ(output.data, before);
  EXPECT_EQ(values_of(output), (std::vector<float>{1, 2}));
}

TEST(ConcatLayerReshape, TheBatchComesFromTheLastInputAndHeightAndWidthStay) {
  ConcatLayer layer;
  LayerRig rig(layer);
  Blob& first = rig.add_input({1, 2, 2, 3});
  Blob& last = rig.add_input({1, 2, 2, 1});
  const Blob& output = rig.add_output({1, 2, 2, 4});
  rig.set_up();
  reshape(first, *make_shape(2, 5, 5, 3, kInterleaved));
  reshape(last, *make_shape(3, 5, 5, 2, kInterleaved));
  layer.Reshape();
  EXPECT_EQ(output.dims, (Dims{3, 2, 2, 5}));
  EXPECT_EQ(output.count, 2U * 25 * 3 + 3 * 25 * 2);
  EXPECT_NE(output.data, nullptr);
}

TEST(ConcatLayerReshape, WithEqualDimsTheCountStaysWithItsStorage) {
  ConcatLayer layer;
  LayerRig rig(layer);
  Blob& first = rig.add_input({1, 2, 2, 1}, {1, 2, 3, 4});
  Blob& last = rig.add_input({1, 2, 2, 1}, {5, 6, 7, 8});
  const Blob& output = rig.add_output({1, 2, 2, 2});
  rig.set_up();
  rig.run();
  // Larger planes: the output shows their first pixels.
  reshape(first, *make_shape(1, 3, 2, 1, kInterleaved));
  reshape(last, *make_shape(1, 3, 2, 1, kInterleaved));
  layer.Reshape();
  EXPECT_EQ(output.count, 8U);
  EXPECT_EQ(rig.run(), std::vector<float>(8, 0));
  // Smaller planes: no input is read past its end.
  reshape(first, *make_shape(1, 1, 2, 1, kInterleaved));
  reshape(last, *make_shape(1, 1, 2, 1, kInterleaved));
  layer.Reshape();
  EXPECT_EQ(output.count, 8U);
  first.data[0] = 1;
  EXPECT_EQ(rig.run(), std::vector<float>(8, 0));
}

TEST(ConcatLayerFits, RefusesToReadPastAnInputAndToLoopForever) {
  ConcatLayer layer;
  EXPECT_FALSE(fits(layer));
  LayerRig rig(layer);
  Blob& first = rig.add_input({1, 2, 2, 3});
  Blob& last = rig.add_input({1, 2, 2, 2});
  EXPECT_TRUE(fits(layer));  // without an output
  Blob& output = rig.add_output({1, 2, 2, 5});
  EXPECT_TRUE(fits(layer));
  output.count = 21;
  EXPECT_FALSE(fits(layer));
  last.count = 7;
  output.count = 19;
  EXPECT_TRUE(fits(layer));  // the last pixel is cut within the last input
  output.count = 20;
  EXPECT_FALSE(fits(layer));
  first.dims[3] = last.dims[3] = 0;
  EXPECT_FALSE(fits(layer));
  output.count = 0;
  EXPECT_TRUE(fits(layer));
}

}  // namespace
}  // namespace ravu::test
