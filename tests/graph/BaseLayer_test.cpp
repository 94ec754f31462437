// What all layers share: storage for their Blobs, the common shape rules, what the destructor gives
// back. Blobs are declared before the layer, since layers go first.
#include "graph/BaseLayer.h"

#include <gtest/gtest.h>

#include "support/blobs.h"

namespace ravu::test {
namespace {

struct ElementwiseLayer : BaseLayer {
  void Reshape() override { reshape_like_input(); }
};

struct FollowingLayer : BaseLayer {
  void Reshape() override { follow_batch(); }
};

TEST(BaseLayerFields, ALayerThatOwnsNoBlobDestroysCleanly) {
  const BaseLayer layer;
  EXPECT_EQ(layer.owned, nullptr);
  EXPECT_EQ(layer.owned_count, 0U);
}

TEST(BaseLayerSlots, TheBaseDoesNothingAndSucceeds) {
  BaseLayer layer;
  Aliases aliases;
  std::vector<BlobPtr> params;
  EXPECT_TRUE(layer.Forward(0));
  EXPECT_TRUE(layer.Forward(99));
  EXPECT_TRUE(layer.Setup(0, params));
  layer.AddPrimitives(nullptr, nullptr, 0, aliases);
  layer.Reshape();
  layer.ReleaseWeights();
  EXPECT_TRUE(params.empty());
  EXPECT_TRUE(aliases.empty());
}

TEST(BaseLayerSlots, SetupAllocatesInputsAndOutputs) {
  const auto input = make_blob({1, 2, 2, 1});
  const auto output = make_blob({1, 1, 1, 3});
  std::vector<BlobPtr> params;
  BaseLayer layer;
  layer.inputs = {input.get()};
  layer.outputs = {output.get()};
  layer.Setup(0, params);
  EXPECT_EQ(values_of(*input), std::vector<float>(4, 0.0F));
  EXPECT_EQ(values_of(*output), std::vector<float>(3, 0.0F));
}

TEST(BaseLayerAllocateBlobs, EmptyInputsComeBeforeEmptyOutputs) {
  const auto in_1 = make_blob({1, 1, 1, 1});
  const auto in_2 = make_blob({1, 1, 1, 1}, {5});
  const auto in_3 = make_blob({1, 1, 1, 1});
  const auto out_1 = make_blob({1, 1, 1, 1});
  const auto out_2 = make_blob({1, 1, 1, 1});
  BaseLayer layer;
  layer.inputs = {in_1.get(), in_2.get(), in_3.get()};
  layer.outputs = {out_1.get(), out_2.get()};
  layer.AllocateBlobs(/*in_place=*/false);
  ASSERT_EQ(layer.owned_count, 4U);
  EXPECT_EQ(layer.owned[0], in_1.get());
  EXPECT_EQ(layer.owned[1], in_3.get());
  EXPECT_EQ(layer.owned[2], out_1.get());
  EXPECT_EQ(layer.owned[3], out_2.get());
  EXPECT_EQ(values_of(*in_2), std::vector<float>{5});
}

TEST(BaseLayerAllocateBlobs, OutputsThatHaveStorageKeepItAndAreNotOwned) {
  const auto input = make_blob({1, 1, 1, 1});
  const auto output = make_blob({1, 1, 1, 1}, {5});
  const float* before = output->data;
  BaseLayer layer;
  layer.inputs = {input.get()};
  layer.outputs = {output.get()};
  layer.AllocateBlobs(/*in_place=*/false);
  ASSERT_EQ(layer.owned_count, 1U);
  EXPECT_EQ(layer.owned[0], input.get());
  EXPECT_EQ(output->data, before);
}

TEST(BaseLayerAllocateBlobs, InPlaceMakesEveryOutputShowTheLastInput) {
  const auto first = make_blob({1, 1, 1, 2}, {1, 2});
  const auto last = make_blob({1, 1, 1, 2}, {3, 4});
  const auto out_1 = make_blob({1, 1, 1, 2});
  const auto out_2 = make_blob({1, 1, 1, 2}, {8, 9});
  BaseLayer layer;
  layer.inputs = {first.get(), last.get()};
  layer.outputs = {out_1.get(), out_2.get()};
  layer.AllocateBlobs(/*in_place=*/true);
  EXPECT_EQ(layer.owned_count, 0U);
  EXPECT_EQ(layer.owned, nullptr);
  EXPECT_EQ(out_1->data, last->data);
  EXPECT_EQ(out_2->data, last->data);
}

TEST(BaseLayerAllocateBlobs, InPlaceOwnsTheInputThatItAllocatedAndNoOutput) {
  const auto input = make_blob({1, 1, 1, 2});
  const auto output = make_blob({1, 1, 1, 2});
  BaseLayer layer;
  layer.inputs = {input.get()};
  layer.outputs = {output.get()};
  layer.AllocateBlobs(/*in_place=*/true);
  ASSERT_EQ(layer.owned_count, 1U);
  EXPECT_EQ(layer.owned[0], input.get());
  EXPECT_EQ(output->data, input->data);
}

TEST(BaseLayerAllocateBlobs, AnInputListedTwiceIsOwnedOnce) {
  const auto input = make_blob({1, 1, 1, 2});
  BaseLayer layer;
  layer.inputs = {input.get(), input.get()};
  layer.outputs = {input.get()};
  layer.AllocateBlobs(/*in_place=*/false);
  EXPECT_EQ(layer.owned_count, 1U);
}

TEST(BaseLayerAllocateBlobs, ASecondSetUpLosesNothingOfTheFirst) {
  const auto input = make_blob({1, 1, 1, 2});
  const auto late = make_blob({1, 1, 1, 2});
  BaseLayer layer;
  layer.inputs = {input.get()};
  layer.AllocateBlobs(/*in_place=*/false);
  layer.outputs = {late.get()};
  layer.AllocateBlobs(/*in_place=*/false);
  ASSERT_EQ(layer.owned_count, 2U);
  EXPECT_EQ(layer.owned[0], input.get());
  EXPECT_EQ(layer.owned[1], late.get());
}

TEST(BaseLayerAllocateBlobs, ABorrowerNeverGetsStorageOfItsOwn) {
  const auto lender = make_blob({1, 1, 1, 2});
  const auto borrower = make_blob({1, 1, 1, 2});
  borrow(*borrower, *lender);
  BaseLayer layer;
  layer.inputs = {borrower.get()};
  layer.AllocateBlobs(/*in_place=*/false);
  EXPECT_EQ(layer.owned_count, 0U);
  EXPECT_EQ(borrower->data, nullptr);
}

TEST(BaseLayerAllocateBlobs, InPlaceWithoutInputsLeavesTheOutputsAlone) {
  const auto output = make_blob({1, 1, 1, 2}, {8, 9});
  BaseLayer layer;
  layer.outputs = {output.get()};
  layer.AllocateBlobs(/*in_place=*/true);
  EXPECT_EQ(values_of(*output), (std::vector<float>{8, 9}));
}

TEST(BaseLayerDestructor, GivesBackTheStorageOfOwnedBlobsAndOfNoOther) {
  const auto input = make_blob({1, 1, 1, 1}, {5});
  const auto output = make_blob({1, 1, 1, 1});
  output->name = "kept";
  {
    BaseLayer layer;
    layer.inputs = {input.get()};
    layer.outputs = {output.get()};
    layer.AllocateBlobs(/*in_place=*/false);
    EXPECT_NE(output->data, nullptr);
  }
  EXPECT_EQ(output->data, nullptr);
  EXPECT_EQ(output->name, "kept");
  EXPECT_EQ(values_of(*input), std::vector<float>{5});
}

TEST(BaseLayerReshape, TheBaseFollowsABatchThatChanged) {
  const auto input = make_blob({2, 3, 4, 5});
  const auto output = make_blob({1, 1, 1, 7}, {0, 1, 2, 3, 4, 5, 6});
  BaseLayer layer;
  layer.inputs = {input.get()};
  layer.outputs = {output.get()};
  layer.Reshape();
  EXPECT_EQ(output->dims, (Dims{2, 3, 4, 5}));
  EXPECT_EQ(output->count, 120U);
}

TEST(BaseLayerReshape, TheBaseIgnoresHeightWidthChannelsAndLayout) {
  const auto input = make_blob({1, 3, 4, 5});
  input->layout = kPlanar;
  const auto output = make_blob({1, 1, 1, 2}, {8, 9});
  BaseLayer layer;
  layer.inputs = {input.get()};
  layer.outputs = {output.get()};
  layer.Reshape();
  EXPECT_EQ(output->dims, (Dims{1, 1, 1, 2}));
  EXPECT_EQ(values_of(*output), (std::vector<float>{8, 9}));
}

TEST(BaseLayerReshape, LooksAtTheLastInputAndTheLastOutput) {
  const auto first = make_blob({9, 1, 1, 1});
  const auto last = make_blob({2, 1, 1, 1});
  const auto out_1 = make_blob({1, 1, 1, 1});
  const auto out_2 = make_blob({1, 1, 1, 1});
  for (const bool elementwise : {false, true}) {
    BaseLayer base;
    ElementwiseLayer follower;
    BaseLayer& layer = elementwise ? follower : base;
    layer.inputs = {first.get(), last.get()};
    layer.outputs = {out_1.get(), out_2.get()};
    layer.Reshape();
    EXPECT_EQ(out_1->dims, (Dims{1, 1, 1, 1}));
    EXPECT_EQ(out_2->dims, (Dims{2, 1, 1, 1}));
    reshape(*out_2, Shape{});
  }
}

TEST(BaseLayerReshape, TheElementwiseRuleFollowsAnyDimAndTheLayout) {
  for (int i = 0; i < 5; ++i) {
    Dims dims{1, 2, 3, 4};
    if (i < 4) ++dims[i];
    const auto input = make_blob(dims);
    if (i == 4) input->layout = kPlanar;
    const auto output = make_blob({1, 2, 3, 4});
    ElementwiseLayer layer;
    layer.inputs = {input.get()};
    layer.outputs = {output.get()};
    layer.Reshape();
    EXPECT_TRUE(same_dims_and_layout(*input, *output)) << i;
    EXPECT_EQ(output->count, input->count) << i;
  }
}

TEST(BaseLayerReshape, TheElementwiseRuleKeepsAnOutputOfTheSameShape) {
  const auto input = make_blob({1, 1, 1, 2});
  const auto output = make_blob({1, 1, 1, 2}, {8, 9});
  ElementwiseLayer layer;
  layer.inputs = {input.get()};
  layer.outputs = {output.get()};
  layer.Reshape();
  EXPECT_EQ(values_of(*output), (std::vector<float>{8, 9}));
}

TEST(BaseLayerReshape, FollowingTheBatchKeepsTheOtherDims) {
  const auto input = make_blob({3, 9, 9, 9});
  const auto output = make_blob({2, 1, 1, 7});
  FollowingLayer layer;
  layer.inputs = {input.get()};
  layer.outputs = {output.get()};
  layer.Reshape();
  EXPECT_EQ(output->dims, (Dims{3, 1, 1, 7}));
  EXPECT_EQ(output->count, 21U);
}

TEST(BaseLayerReshape, FollowingABatchBeyondTheGreatestCountChangesNothing) {
  const auto input = make_blob({1 << 20, 1, 1, 1});
  const auto output = make_blob({1, 1, 1, 1 << 12});
  FollowingLayer layer;
  layer.inputs = {input.get()};
  layer.outputs = {output.get()};
  layer.Reshape();
  EXPECT_EQ(output->dims, (Dims{1, 1, 1, 1 << 12}));
}

TEST(BaseLayerReshape, FollowingFromABatchOfZeroDividesByNothing) {
  const auto input = make_blob({2, 1, 1, 1});
  const auto output = make_blob({0, 1, 1, 4});
  FollowingLayer layer;
  layer.inputs = {input.get()};
  layer.outputs = {output.get()};
  layer.Reshape();
  EXPECT_EQ(output->dims, (Dims{0, 1, 1, 4}));
}

TEST(BaseLayerReshape, LayersWithoutInputsOrOutputsAreLeftAlone) {
  const auto blob = make_blob({2, 1, 1, 1});
  BaseLayer base;
  ElementwiseLayer elementwise;
  FollowingLayer following;
  for (BaseLayer* layer :
       {&base, static_cast<BaseLayer*>(&elementwise), static_cast<BaseLayer*>(&following)}) {
    layer->Reshape();
    layer->inputs = {blob.get()};
    layer->Reshape();
    layer->inputs.clear();
    layer->outputs = {blob.get()};
    layer->Reshape();
  }
  EXPECT_EQ(blob->dims, (Dims{2, 1, 1, 1}));
}

TEST(SharedScratch, LayersWithEqualShapesShareOneZeroedBlob) {
  std::vector<BlobPtr> params;
  const Shape shape = *make_shape(1, 2, 2, 1, kInterleaved);
  Blob& first = shared_scratch(params, shape);
  EXPECT_EQ(values_of(first), std::vector<float>(4, 0.0F));
  first.data[0] = 5;
  Blob& second = shared_scratch(params, shape);
  EXPECT_EQ(&second, &first);
  EXPECT_EQ(second.data[0], 5);
  EXPECT_EQ(params.size(), 1U);
}

TEST(SharedScratch, OtherDimsOrAnotherLayoutGetABlobOfTheirOwn) {
  std::vector<BlobPtr> params;
  shared_scratch(params, *make_shape(1, 2, 2, 1, kInterleaved));
  shared_scratch(params, *make_shape(1, 1, 4, 1, kInterleaved));
  shared_scratch(params, *make_shape(1, 2, 2, 1, kPlanar));
  EXPECT_EQ(params.size(), 3U);
}

TEST(HasData, NeedsAnOutputWithElements) {
  const auto full = make_blob({1, 1, 1, 1}, {1});
  const auto emptied = make_blob({1, 1, 1, 1}, {1});
  BaseLayer layer;
  layer.inputs = {full.get()};
  layer.outputs = {emptied.get()};
  layer.prepared = true;
  EXPECT_TRUE(has_data(layer));
  emptied->count = 0;
  EXPECT_FALSE(has_data(layer));
}

TEST(HasData, NeedsASetUpAndBothBlobsWithData) {
  const auto full = make_blob({1, 1, 1, 1}, {1});
  const auto empty = make_blob({1, 1, 1, 1});
  const auto answer = [](std::vector<Blob*> inputs, std::vector<Blob*> outputs, bool prepared) {
    BaseLayer layer;
    layer.inputs = std::move(inputs);
    layer.outputs = std::move(outputs);
    layer.prepared = prepared;
    return has_data(layer);
  };
  EXPECT_TRUE(answer({full.get()}, {full.get()}, true));
  EXPECT_FALSE(answer({full.get()}, {full.get()}, false));
  EXPECT_FALSE(answer({full.get()}, {empty.get()}, true));
  EXPECT_FALSE(answer({empty.get()}, {full.get()}, true));
  EXPECT_FALSE(answer({}, {full.get()}, true));
  EXPECT_FALSE(answer({full.get()}, {}, true));
}

}  // namespace
}  // namespace ravu::test
