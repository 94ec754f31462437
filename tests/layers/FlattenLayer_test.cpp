// Flatten: the shape, the shared storage, later shape changes.
#include "layers/FlattenLayer.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <random>

#include "graph/cpu_backend.h"
#include "support/blobs.h"
#include "support/reference.h"

namespace ravu::test {
namespace {

TEST(FlattenLayerShape, PutsAllElementsOfAnImageIntoItsChannels) {
  const auto shape = flatten_shape(*make_blob({2, 3, 4, 5}));
  ASSERT_TRUE(shape);
  EXPECT_EQ(shape->dims, (Dims{2, 1, 1, 60}));
  EXPECT_EQ(shape->count, 120U);
}

TEST(FlattenLayerShape, IsNoneWithoutABatch) {
  EXPECT_FALSE(flatten_shape(*make_blob({0, 3, 4, 5})));
}

TEST(FlattenLayerSetup, TheOutputSharesTheInputsStorage) {
  FlattenLayer layer;
  LayerRig rig(layer);
  const Blob& input = rig.add_input({1, 2, 2, 1}, {1, 2, 3, 4});
  const Blob& output = rig.add_output({1, 1, 1, 4});
  rig.set_up();
  EXPECT_EQ(output.data, input.data);
  EXPECT_EQ(rig.run(), (std::vector<float>{1, 2, 3, 4}));
}

TEST(FlattenLayerForward, AgreesWithTheReferenceInEveryRunMode) {
  std::mt19937 random(1);
  for (unsigned i = 0; i < 300; ++i) {
    const auto draw = [&](std::uint32_t most) {
      return std::uniform_int_distribution<std::uint32_t>(1, most)(random);
    };
    const Dims dims{draw(4), draw(9), draw(9), draw(20)};
    const auto values = random_values(std::size_t{dims[0]} * dims[1] * dims[2] * dims[3], i);
    const auto expected = reference::flattened({dims.begin(), dims.end()});
    FlattenLayer layer;
    LayerRig rig(layer);
    const auto shape = flatten_shape(rig.add_input(dims, values));
    ASSERT_TRUE(shape);
    EXPECT_TRUE(std::equal(expected.begin(), expected.end(), shape->dims.begin())) << "case " << i;
    rig.add_output(shape->dims);
    rig.set_up();
    EXPECT_EQ(rig.run(i % 5), values) << "case " << i;
  }
}

TEST(FlattenLayerReshape, OnlyTheCountFollowsTheInput) {
  FlattenLayer layer;
  LayerRig rig(layer);
  Blob& input = rig.add_input({1, 2, 2, 1}, {1, 2, 3, 4});
  Blob& output = rig.add_output({1, 1, 1, 4});
  rig.set_up();
  reshape(input, *make_shape(2, 3, 3, 1, kInterleaved));
  layer.Reshape();
  EXPECT_EQ(output.dims, (Dims{1, 1, 1, 4}));
  EXPECT_EQ(output.count, 18U);
  EXPECT_EQ(output.data, nullptr);  // until the network binds its borrowers
  bind(output);
  EXPECT_EQ(output.data, input.data);
}

TEST(FlattenLayerReshape, StorageOfItsOwnFollowsTheCount) {
  FlattenLayer layer;
  LayerRig rig(layer);
  Blob& input = rig.add_input({1, 2, 2, 1});
  Blob& output = rig.add_output({1, 1, 1, 4});
  assign(output, std::vector<float>{1, 2, 3, 4}.data());
  layer.Reshape();
  EXPECT_EQ(values_of(output), (std::vector<float>{1, 2, 3, 4}));
  reshape(input, *make_shape(1, 100, 100, 1, kInterleaved));
  layer.Reshape();
  EXPECT_EQ(output.count, 10000U);
  EXPECT_EQ(values_of(output), std::vector<float>(10000, 0));  // every one can be read
}

TEST(FlattenLayerReshape, InPlaceNothingChanges) {
  FlattenLayer layer;
  LayerRig rig(layer);
  Blob& blob = rig.add_input({1, 2, 2, 1}, {1, 2, 3, 4});
  layer.outputs.push_back(&blob);
  rig.set_up();
  layer.Reshape();
  EXPECT_EQ(values_of(blob), (std::vector<float>{1, 2, 3, 4}));
}

TEST(FlattenLayerFits, NeedsAnInput) {
  FlattenLayer layer;
  EXPECT_FALSE(fits(layer));
  LayerRig rig(layer);
  rig.add_input({1, 2, 2, 1});
  EXPECT_TRUE(fits(layer));
}

// The head of a detector: every layer but the last shows or moves the input's values.
TEST(ShapeLayers, ADetectorsHeadRunsOnTheProcessorAndKeepsItsBatch) {
  const auto order = small_ints({2, 1, 0, 3});
  auto result = load(ModelBuilder(2, 3)
                         .add_layer(layer("permute", {"data"}, {"turned"})
                                        .add("need_permute", 1)
                                        .add("permute_order", order))
                         .add_layer(layer("flatten", {"turned"}, {"flat"}))
                         .add_layer(layer("flatten", {"data"}, {"flat_data"}))
                         .add_layer(layer("concat", {"flat", "flat_data"}, {"both"}))
                         .add_layer(layer("reshape", {"both"}, {"boxes"})
                                        .add("constant_count", 0)
                                        .add("inferred_axis", 2)
                                        .add("dims", small_ints({0, 0, -1, 4}))));
  ASSERT_TRUE(result.network) << result.reason;
  Network& network = *result.network;
  ASSERT_EQ(network.outputs.size(), 1U);
  const Blob& boxes = *network.outputs.back();
  EXPECT_EQ(boxes.dims, (Dims{1, 1, 6, 4}));
  setup_cpu(network, 0);
  for (int i = 0; i < 12; ++i) network.input->data[i] = static_cast<float>(i);
  forward_cpu(network, 0);
  EXPECT_EQ(values_of(boxes), (std::vector<float>{0, 6, 3, 9, 1, 7, 4, 10, 2, 8, 5,  11,  //
                                                  0, 1, 2, 3, 4, 5, 6, 7,  8, 9, 10, 11}));

  // Flatten keeps its dims, so concat and all behind it keep the loaded batch and its first image.
  const auto before = values_of(boxes);
  network.change_input_shape(*make_shape(2, 2, 2, 3, kInterleaved));
  for (int i = 0; i < 24; ++i) network.input->data[i] = static_cast<float>(i);
  forward_cpu(network, 0);
  EXPECT_EQ(boxes.dims, (Dims{1, 1, 6, 4}));
  EXPECT_EQ(values_of(boxes), before);
  const Blob& flat = *network.layers[1]->outputs.back();
  EXPECT_EQ(flat.dims, (Dims{1, 1, 1, 12}));
  EXPECT_EQ(values_of(flat), (std::vector<float>{0,  6,  3,  9,  1,  7,  4,  10, 2,  8,  5,  11,
                                                 12, 18, 15, 21, 13, 19, 16, 22, 14, 20, 17, 23}));
}

}  // namespace
}  // namespace ravu::test
