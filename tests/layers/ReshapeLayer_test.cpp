// Reshape: the record's shape rule, the shared storage, later shape changes.
#include "layers/ReshapeLayer.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <random>

#include "support/blobs.h"
#include "support/reference.h"

namespace ravu::test {
namespace {

Shape shape_of(const std::array<std::int32_t, 4>& dims, std::int32_t inferred_axis,
               const Dims& input) {
  ReshapeLayer layer;
  layer.dims = dims;
  layer.inferred_axis = inferred_axis;
  return reshape_record_shape(layer, *make_blob(input));
}

TEST(ReshapeLayerShape, PositiveEntriesReplaceDimensions) {
  EXPECT_EQ(shape_of({-1, 0, 10, 6}, -1, {1, 3, 4, 5}).dims, (Dims{1, 3, 10, 6}));
  EXPECT_EQ(shape_of({-1, -1, -1, -1}, -1, {1, 3, 4, 5}).dims, (Dims{1, 3, 4, 5}));
}

TEST(ReshapeLayerShape, TheInferredAxisGetsTheCountDividedByTheReplacedOnes) {
  EXPECT_EQ(shape_of({1, -1, 4, 5}, 1, {1, 3, 4, 5}).dims, (Dims{1, 3, 4, 5}));
  EXPECT_EQ(shape_of({1, 1, -1, 21}, 2, {1, 1, 1, 42}).dims, (Dims{1, 1, 2, 21}));
}

TEST(ReshapeLayerShape, DimensionsThatAreKeptDoNotEnterTheInferredOne) {
  const Shape shape = shape_of({0, -1, 1, 1}, 1, {2, 3, 4, 5});
  EXPECT_EQ(shape.dims, (Dims{2, 120, 1, 1}));
  EXPECT_EQ(shape.count, 120U);  // though the dims multiply to 240
}

TEST(ReshapeLayerShape, APositiveEntryOnTheInferredAxisIsCountedAndReplaced) {
  EXPECT_EQ(shape_of({-1, -1, 2, 5}, 2, {1, 1, 10, 5}).dims, (Dims{1, 1, 5, 5}));
}

TEST(ReshapeLayerShape, TheProductCannotWrap) {
  constexpr std::int32_t k16 = 1 << 16;
  // 2^64 in all, which 64 bits would take for 0.
  EXPECT_EQ(shape_of({k16, k16, k16, k16}, 0, {1, 3, 4, 5}).dims[0], 0U);
  constexpr std::int32_t kLargest = 0x7FFFFFFF;
  EXPECT_EQ(shape_of({kLargest, kLargest, kLargest, kLargest}, 3, {1, 3, 4, 5}).dims[3], 0U);
}

TEST(ReshapeLayerSetup, TheOutputSharesTheInputsStorage) {
  ReshapeLayer layer;
  LayerRig rig(layer);
  const Blob& input = rig.add_input({1, 2, 2, 1}, {1, 2, 3, 4});
  const Blob& output = rig.add_output({1, 1, 1, 4});
  rig.set_up();
  EXPECT_EQ(output.data, input.data);
  EXPECT_EQ(rig.run(), (std::vector<float>{1, 2, 3, 4}));
}

TEST(ReshapeLayerForward, AgreesWithTheReferenceInEveryRunMode) {
  std::mt19937 random(1);
  for (unsigned i = 0; i < 400; ++i) {
    const auto draw = [&](int low, int high) {
      return std::uniform_int_distribution<int>(low, high)(random);
    };
    Dims dims;
    for (std::uint32_t& dim : dims) dim = static_cast<std::uint32_t>(draw(1, 12));
    ReshapeLayer layer;
    for (std::int32_t& wanted : layer.dims) wanted = draw(-1, 6);
    layer.inferred_axis = draw(-1, 3);
    LayerRig rig(layer);
    const auto values = random_values(std::size_t{dims[0]} * dims[1] * dims[2] * dims[3], i);
    const Blob& input = rig.add_input(dims, values);
    const Shape shape = reshape_record_shape(layer, input);
    const auto expected = reference::reshaped(
        {dims.begin(), dims.end()}, {layer.dims.begin(), layer.dims.end()}, layer.inferred_axis);
    EXPECT_TRUE(std::equal(expected.begin(), expected.end(), shape.dims.begin())) << "case " << i;
    EXPECT_EQ(shape.count, values.size()) << "case " << i;
    static_cast<Shape&>(rig.add_output({1, 1, 1, 1})) = shape;
    rig.set_up();
    EXPECT_EQ(rig.run(i % 5), values) << "case " << i;
  }
}

TEST(ReshapeLayerReshape, ANewBatchGivesTheInputsWholeShape) {
  ReshapeLayer layer;
  LayerRig rig(layer);
  Blob& input = rig.add_input({1, 2, 2, 3});
  Blob& output = rig.add_output({1, 1, 2, 6});
  rig.set_up();
  reshape(input, *make_shape(1, 4, 2, 3, kInterleaved));
  layer.Reshape();
  EXPECT_EQ(output.dims, (Dims{1, 1, 2, 6}));  // the batch is the same
  EXPECT_EQ(output.count, 12U);
  reshape(input, *make_shape(2, 2, 2, 3, kInterleaved));
  layer.Reshape();
  EXPECT_EQ(output.dims, (Dims{2, 2, 2, 3}));
  bind(output);
  EXPECT_EQ(output.data, input.data);
}

TEST(ReshapeLayerReshape, ASmallerInputLeavesTheOutputWithoutData) {
  ReshapeLayer layer;
  LayerRig rig(layer);
  Blob& input = rig.add_input({1, 2, 2, 3});
  Blob& output = rig.add_output({1, 1, 2, 6});
  rig.set_up();
  reshape(input, *make_shape(1, 1, 2, 3, kInterleaved));
  layer.Reshape();
  bind(output);
  EXPECT_EQ(output.count, 12U);
  EXPECT_EQ(output.data, nullptr);
}

TEST(ReshapeLayerFits, RefusesAnAxisThatIsNone) {
  ReshapeLayer layer;
  EXPECT_FALSE(fits(layer));
  LayerRig rig(layer);
  rig.add_input({1, 2, 2, 1});
  EXPECT_TRUE(fits(layer));
  layer.inferred_axis = 3;
  EXPECT_TRUE(fits(layer));
  layer.inferred_axis = -7;
  EXPECT_TRUE(fits(layer));
  layer.inferred_axis = 4;
  EXPECT_FALSE(fits(layer));
}

}  // namespace
}  // namespace ravu::test
