// Permute: which orders move values, and where to.
#include "layers/PermuteLayer.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <random>

#include "support/blobs.h"
#include "support/reference.h"

namespace ravu::test {
namespace {

using Order = std::array<std::uint32_t, 4>;

PermuteLayer& configure(PermuteLayer& layer, const Order& order) {
  layer.need_permute = true;
  layer.order = order;
  return layer;
}

std::vector<float> run_permute(const Order& order, Dims dims, const std::vector<float>& values) {
  PermuteLayer layer;
  LayerRig rig(configure(layer, order));
  rig.add_input(dims, values);
  rig.add_output(dims);
  rig.set_up();
  return rig.run();
}

TEST(PermuteLayerForward, OutputAxesAreTheInputsInTheGivenOrder) {
  // Two rows, one column, three channels become channels, rows, columns.
  EXPECT_EQ(run_permute({2, 0, 1, 3}, {1, 2, 1, 3}, {1, 2, 3, 4, 5, 6}),
            (std::vector<float>{1, 4, 2, 5, 3, 6}));
}

TEST(PermuteLayerForward, TheBatchsEntryIsSkippedWhereverItStands) {
  const std::vector<float> values = random_values(2 * 3 * 4 * 5, 1);
  const auto expected = run_permute({2, 0, 1, 3}, {2, 3, 4, 5}, values);
  for (const Order& order : {Order{3, 2, 0, 1}, Order{2, 3, 0, 1}, Order{2, 0, 3, 1}}) {
    EXPECT_EQ(run_permute(order, {2, 3, 4, 5}, values), expected);
  }
  EXPECT_EQ(run_permute({0, 3, 1, 2}, {2, 3, 4, 5}, values), values);
}

TEST(PermuteLayerForward, TheBlobKeepsItsShape) {
  PermuteLayer layer;
  LayerRig rig(configure(layer, {2, 1, 0, 3}));
  rig.add_input({1, 2, 3, 4}, random_values(24, 1));
  const Blob& output = rig.add_output({1, 2, 3, 4});
  rig.set_up();
  rig.run();
  EXPECT_EQ(output.dims, (Dims{1, 2, 3, 4}));
}

TEST(PermuteLayerForward, AgreesWithTheReferenceInEveryRunModeAndInPlace) {
  std::mt19937 random(621);
  const auto draw = [&](std::uint32_t low, std::uint32_t high) {
    return std::uniform_int_distribution<std::uint32_t>(low, high)(random);
  };
  for (unsigned i = 0; i < 400; ++i) {
    const Dims dims{draw(1, 3), draw(1, 20), draw(1, 20), draw(1, 40)};
    const auto values = random_values(std::size_t{dims[0]} * dims[1] * dims[2] * dims[3], i);
    Order order{0, 1, 2, 3};
    std::shuffle(order.begin(), order.end(), random);
    std::vector<std::size_t> axes(order.begin(), order.end());
    axes.erase(std::find(axes.begin(), axes.end(), 3U));
    PermuteLayer layer;
    LayerRig rig(configure(layer, order));
    Blob& input = rig.add_input(dims, values);
    if (draw(0, 1) == 0) {
      layer.outputs.push_back(&input);
    } else {
      rig.add_output(dims);
    }
    rig.set_up();
    EXPECT_EQ(rig.run(i % 5),
              reference::permute({dims[0], dims[1], dims[2], dims[3]}, axes, values))
        << "case " << i;
  }
}

TEST(PermuteLayerForward, BorrowedStorageCountsAsInPlace) {
  PermuteLayer layer;
  LayerRig rig(configure(layer, {2, 0, 1, 3}));
  Blob& input = rig.add_input({1, 2, 1, 3}, {1, 2, 3, 4, 5, 6});
  Blob& output = rig.add_output({1, 2, 1, 3});
  borrow(output, input);
  rig.set_up();
  EXPECT_EQ(rig.run(), (std::vector<float>{1, 4, 2, 5, 3, 6}));
}

TEST(PermuteLayerSetup, WhatMovesNothingSharesTheInputsStorage) {
  for (const bool need : {false, true}) {
    PermuteLayer layer;
    layer.need_permute = need;
    layer.order = need ? Order{0, 1, 2, 3} : Order{2, 0, 1, 3};
    EXPECT_FALSE(moves_values(layer));
    LayerRig rig(layer);
    const Blob& input = rig.add_input({1, 1, 1, 2}, {1, 2});
    const Blob& output = rig.add_output({1, 1, 1, 2});
    rig.set_up();
    EXPECT_EQ(output.data, input.data);
    EXPECT_EQ(rig.run(), (std::vector<float>{1, 2}));
  }
}

TEST(PermuteLayerSetup, AnyOtherOrderGetsStorageOfItsOwn) {
  PermuteLayer layer;
  configure(layer, {0, 3, 1, 2});
  EXPECT_TRUE(moves_values(layer));
  LayerRig rig(layer);
  const Blob& input = rig.add_input({1, 1, 1, 2}, {1, 2});
  const Blob& output = rig.add_output({1, 1, 1, 2});
  rig.set_up();
  EXPECT_NE(output.data, nullptr);
  EXPECT_NE(output.data, input.data);
}

TEST(PermuteLayerReshape, OnlyTheBatchIsFollowed) {
  PermuteLayer layer;
  LayerRig rig(configure(layer, {2, 1, 0, 3}));
  Blob& input = rig.add_input({1, 2, 2, 3}, random_values(12, 1));
  const Blob& output = rig.add_output({1, 2, 2, 3});
  rig.set_up();
  const auto before = rig.run();
  reshape(input, *make_shape(1, 4, 2, 3, kInterleaved));
  layer.Reshape();
  EXPECT_EQ(output.dims, (Dims{1, 2, 2, 3}));
  EXPECT_EQ(rig.run(), before);  // the larger input does not fit
  const auto values = random_values(48, 2);
  reshape(input, *make_shape(2, 4, 2, 3, kInterleaved));
  std::copy(values.begin(), values.end(), input.data);
  layer.Reshape();
  EXPECT_EQ(output.dims, (Dims{2, 4, 2, 3}));
  EXPECT_EQ(rig.run(), reference::permute({2, 4, 2, 3}, {2, 1, 0}, values));
}

TEST(PermuteLayerReshape, TheScratchFollowsTheInputInPlace) {
  PermuteLayer layer;
  LayerRig rig(configure(layer, {2, 1, 0, 3}));
  Blob& blob = rig.add_input({1, 2, 2, 3}, random_values(12, 1));
  layer.outputs.push_back(&blob);
  rig.set_up();
  const auto values = random_values(90, 2);
  reshape(blob, *make_shape(1, 5, 6, 3, kInterleaved));
  std::copy(values.begin(), values.end(), blob.data);
  layer.Reshape();
  EXPECT_EQ(rig.run(), reference::permute({1, 5, 6, 3}, {2, 1, 0}, values));
}

TEST(PermuteLayerFits, RefusesOrdersThatAreNone) {
  PermuteLayer layer;
  EXPECT_FALSE(fits(layer));
  LayerRig rig(layer);
  rig.add_input({1, 2, 2, 3});
  rig.add_output({1, 2, 2, 3});
  for (const Order& order : {Order{0, 0, 1, 2}, Order{0, 1, 2, 4}, Order{2, 1, 1, 3},
                             Order{0xFFFFFFFF, 0, 1, 2}, Order{3, 3, 3, 3}}) {
    EXPECT_FALSE(fits(configure(layer, order)));
    layer.need_permute = false;
    EXPECT_TRUE(fits(layer));  // nothing looks at the order
  }
}

TEST(PermuteLayerFits, RefusesWhatTheKernelCouldNotReach) {
  PermuteLayer layer;
  LayerRig rig(configure(layer, {2, 1, 0, 3}));
  Blob& input = rig.add_input({1, 2, 2, 3});
  EXPECT_TRUE(fits(layer));  // without an output
  Blob& output = rig.add_output({1, 2, 2, 3});
  EXPECT_TRUE(fits(layer));
  output.count = 11;
  EXPECT_FALSE(fits(layer));
  output.count = 12;
  input.dims = {1, 2, 2, 4};
  EXPECT_FALSE(fits(layer));
}

TEST(PermuteLayerSetup, DimsWithoutABatchAskForNoScratch) {
  PermuteLayer layer;
  LayerRig rig(configure(layer, {2, 1, 0, 3}));
  Blob& input = rig.add_input({0, 1, 1, 1});
  input.dims = {0, 0x7FFFFFFF, 0x7FFFFFFF, 0x7FFFFFFF};
  rig.add_output({1, 1, 1, 1});
  rig.set_up();
  EXPECT_EQ(rig.workspace.size(), 0U);
  EXPECT_EQ(rig.run(), std::vector<float>{0});
}

}  // namespace
}  // namespace ravu::test
