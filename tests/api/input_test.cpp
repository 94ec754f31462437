// Images for ravu_set_InputData, and the mean that it subtracts.
#include <gtest/gtest.h>

#include <cstdint>

#include "support/handles.h"

namespace ravu::test {
namespace {

using Values = std::vector<float>;

ravu_blob* image_of(ravu_network* network, const Bytes& pixels, std::uint32_t width = 2,
                    std::uint32_t height = 2, std::uint32_t channels = 1) {
  return ravu_create_data_blob(network, pixels.data(), width, height, channels,
                               static_cast<std::int32_t>(width * channels));
}

// The Blob's values; the Blob is released.
Values take_values(ravu_blob* blob) {
  const BlobPtr owner(to_blob(blob));
  return owner ? values_of(*owner) : Values{};
}

TEST(CreateDataBlob, TurnsBytesIntoFloatsWithoutScaling) {
  const Handle handle(input_only(2, 1));
  EXPECT_EQ(take_values(image_of(handle, {0, 1, 128, 255})), (Values{0, 1, 128, 255}));
}

TEST(CreateDataBlob, HasTheImagesShapeAndTheNetworksLayout) {
  const Handle handle(input_only(2, 1).set("layout", text("BCHW")));
  const Bytes pixels(24);
  const BlobPtr planar(to_blob(image_of(handle, pixels, /*width=*/4, /*height=*/3, 2)));
  EXPECT_EQ(planar->dims, (Dims{1, 3, 4, 2}));
  EXPECT_EQ(planar->count, 24U);
  EXPECT_EQ(planar->layout, kPlanar);
  EXPECT_EQ(planar->consumers, 0U);
  EXPECT_EQ(planar->producers, 0U);
  EXPECT_EQ(planar->name, "");
  ASSERT_TRUE(ravu_setup_runEngine(handle, RAVU_MODE_CPU));
  const BlobPtr interleaved(to_blob(image_of(handle, pixels, 4, 3, 2)));
  EXPECT_EQ(interleaved->layout, kInterleaved);
}

TEST(CreateDataBlob, SkipsThePaddingAtTheEndOfARow) {
  const Handle handle(input_only(2, 1));
  const Bytes pixels{1, 2, 99, 3, 4};  // the last row needs no padding
  EXPECT_EQ(take_values(ravu_create_data_blob(handle, pixels.data(), 2, 2, 1, /*stride=*/3)),
            (Values{1, 2, 3, 4}));
}

TEST(CreateDataBlob, ANegativeStrideReadsTheRowsUpwards) {
  const Handle handle(input_only(2, 1));
  const Bytes pixels{1, 2, 3, 4};
  EXPECT_EQ(take_values(ravu_create_data_blob(handle, pixels.data() + 2, 2, 2, 1, /*stride=*/-2)),
            (Values{3, 4, 1, 2}));
}

TEST(CreateDataBlob, AStrideOfZeroRepeatsTheFirstRow) {
  const Handle handle(input_only(2, 1));
  const Bytes pixels{1, 2};
  EXPECT_EQ(take_values(ravu_create_data_blob(handle, pixels.data(), 2, 3, 1, /*stride=*/0)),
            (Values{1, 2, 1, 2, 1, 2}));
}

TEST(CreateDataBlob, IsNullForAZeroSize) {
  const Handle handle(input_only(2, 1));
  const Bytes pixels(4);
  EXPECT_EQ(ravu_create_data_blob(handle, pixels.data(), 0, 2, 1, 2), nullptr);
  EXPECT_EQ(ravu_create_data_blob(handle, pixels.data(), 2, 0, 1, 2), nullptr);
  EXPECT_EQ(ravu_create_data_blob(handle, pixels.data(), 2, 2, 0, 2), nullptr);
}

TEST(CreateDataBlob, IsNullForNullBytes) {
  const Handle handle(input_only(2, 1));
  EXPECT_EQ(ravu_create_data_blob(handle, nullptr, 2, 2, 1, 2), nullptr);
}

TEST(CreateDataBlob, IsNullForSizesThatNoTensorCanHold) {
  const Handle handle(input_only(2, 1));
  const Bytes pixels(4);
  const auto* bytes = pixels.data();
  EXPECT_EQ(ravu_create_data_blob(handle, bytes, 0x8000, 0x8000, 2, 0), nullptr);    // 2^31
  EXPECT_EQ(ravu_create_data_blob(handle, bytes, 0x10000, 0x10000, 1, 0), nullptr);  // 2^32
  EXPECT_EQ(ravu_create_data_blob(handle, bytes, 0xFFFFFFFF, 1, 1, 0), nullptr);
  EXPECT_EQ(ravu_create_data_blob(handle, bytes, 0xFFFFFFFF, 0xFFFFFFFF, 0xFFFFFFFF, 0), nullptr);
}

TEST(CreateDataBlob, IsNullForAnImageBeyondTheNetworksMemoryLimit) {
  const Handle handle(small_classifier());
  const Bytes pixels{1, 2, 3, 4};
  handle.network().memory_limit = 4 * sizeof(float) - 1;
  EXPECT_EQ(ravu_create_data_blob(handle, pixels.data(), 2, 2, 1, 2), nullptr);
  handle.network().memory_limit = 4 * sizeof(float);
  const BlobPtr image(to_blob(ravu_create_data_blob(handle, pixels.data(), 2, 2, 1, 2)));
  ASSERT_NE(image, nullptr);
  EXPECT_EQ(values_of(*image), (std::vector<float>{1, 2, 3, 4}));
}

TEST(SetInputData, CopiesEachImageToItsBatchItem) {
  const Handle handle(input_only(2, 1), /*batch=*/2);
  ravu_blob* blobs[] = {image_of(handle, {1, 2, 3, 4}), image_of(handle, {5, 6, 7, 8})};
  EXPECT_TRUE(ravu_set_InputData(handle, blobs, 2));
  EXPECT_EQ(input_values(handle), (Values{1, 2, 3, 4, 5, 6, 7, 8}));
}

TEST(SetInputData, FewerImagesThanTheBatchLeaveTheOtherItemsAsTheyAre) {
  const Handle handle(input_only(2, 1), /*batch=*/2);
  ravu_blob* first = image_of(handle, {1, 2, 3, 4});
  EXPECT_TRUE(ravu_set_InputData(handle, &first, 1));
  EXPECT_EQ(input_values(handle), (Values{1, 2, 3, 4, 0, 0, 0, 0}));
}

TEST(SetInputData, NoImagesIsFalseAndLeavesTheInputAndTheImages) {
  const Handle handle(input_only(2, 1));
  ravu_blob* blob = image_of(handle, {1, 2, 3, 4});
  EXPECT_FALSE(ravu_set_InputData(handle, &blob, 0));
  EXPECT_EQ(input_values(handle), Values(4, 0.0F));
  EXPECT_EQ(take_values(blob), (Values{1, 2, 3, 4}));
}

TEST(SetInputData, ANullListIsFalse) {
  const Handle handle(input_only(2, 1));
  EXPECT_FALSE(ravu_set_InputData(handle, nullptr, 1));
}

// That every image is released exactly once is what the leak and address sanitizers look at.
TEST(SetInputData, ImagesBeyondTheBatchAreReleasedWithoutBeingCopied) {
  const Handle handle(input_only(2, 1));
  ravu_blob* blobs[] = {image_of(handle, {1, 2, 3, 4}), image_of(handle, {5, 6, 7, 8}),
                        image_of(handle, {9, 9, 9, 9})};
  EXPECT_TRUE(ravu_set_InputData(handle, blobs, 3));
  EXPECT_EQ(input_values(handle), (Values{1, 2, 3, 4}));
}

TEST(SetInputData, AnImageGivenTwiceIsCopiedTwiceAndReleasedOnce) {
  const Handle handle(input_only(2, 1), /*batch=*/3);
  ravu_blob* twice = image_of(handle, {1, 2, 3, 4});
  ravu_blob* blobs[] = {twice, image_of(handle, {5, 6, 7, 8}), twice};
  EXPECT_TRUE(ravu_set_InputData(handle, blobs, 3));
  EXPECT_EQ(input_values(handle), (Values{1, 2, 3, 4, 5, 6, 7, 8, 1, 2, 3, 4}));
}

TEST(SetInputData, AnImageGivenTwiceLosesTheMeanEachTime) {
  const Handle handle(input_only(2, 1), /*batch=*/2);
  const Values mean(4, 1.0F);
  ravu_set_meanData(handle, mean.data());
  ravu_blob* twice = image_of(handle, {5, 6, 7, 8});
  ravu_blob* blobs[] = {twice, twice};
  EXPECT_TRUE(ravu_set_InputData(handle, blobs, 2));
  EXPECT_EQ(input_values(handle), (Values{4, 5, 6, 7, 3, 4, 5, 6}));
}

TEST(SetInputData, NullEntriesAreSkippedAndKeepTheirBatchItem) {
  const Handle handle(input_only(2, 1), /*batch=*/3);
  ravu_blob* blobs[] = {nullptr, image_of(handle, {1, 2, 3, 4}), nullptr};
  EXPECT_TRUE(ravu_set_InputData(handle, blobs, 3));
  EXPECT_EQ(input_values(handle), (Values{0, 0, 0, 0, 1, 2, 3, 4, 0, 0, 0, 0}));
}

TEST(SetInputData, ASmallerImageFillsTheBeginningOfItsItem) {
  const Handle handle(input_only(2, 1), /*batch=*/2);
  const Values mean(4, 1.0F);
  ravu_set_meanData(handle, mean.data());
  ravu_blob* blobs[] = {image_of(handle, {5}, 1, 1), image_of(handle, {6, 7}, 2, 1)};
  EXPECT_TRUE(ravu_set_InputData(handle, blobs, 2));
  EXPECT_EQ(input_values(handle), (Values{4, 0, 0, 0, 5, 6, 0, 0}));
}

TEST(SetInputData, ALargerImageIsCutAtItsItemsEnd) {
  const Handle handle(input_only(2, 1), /*batch=*/2);
  ravu_blob* blobs[] = {nullptr, image_of(handle, {1, 2, 3, 4, 5, 6}, 2, 3)};
  EXPECT_TRUE(ravu_set_InputData(handle, blobs, 2));
  EXPECT_EQ(input_values(handle), (Values{0, 0, 0, 0, 1, 2, 3, 4}));
}

TEST(SetInputData, SubtractsTheMeanWhateverTheModelSaysOfPreprocessing) {
  for (const int need_crop : {0, 1}) {
    ModelBuilder model = input_only(2, 1);
    model.set("need_crop", integer(need_crop)).set("data_mean", tensor({1, 2, 2, 1}, {1, 2, 3, 4}));
    const Handle handle(model);
    ravu_blob* blob = image_of(handle, {10, 10, 10, 10});
    EXPECT_TRUE(ravu_set_InputData(handle, &blob, 1));
    EXPECT_EQ(input_values(handle), (Values{9, 8, 7, 6})) << "need_crop " << need_crop;
  }
}

TEST(SetInputData, ForwardSubtractsTheMeanOnceMoreWhenTheModelAsksForPreprocessing) {
  for (const int need_crop : {0, 1}) {
    ModelBuilder model = input_only(2, 1);
    model.set("need_crop", integer(need_crop)).set("data_mean", tensor({1, 2, 2, 1}, {1, 2, 3, 4}));
    const Handle handle(model);
    ASSERT_TRUE(ravu_setup_runEngine(handle, RAVU_MODE_CPU));
    ravu_blob* blob = image_of(handle, {10, 10, 10, 10});
    EXPECT_TRUE(ravu_set_InputData(handle, &blob, 1));
    ravu_forward(handle, RAVU_MODE_CPU);
    EXPECT_EQ(input_values(handle), need_crop == 0 ? (Values{9, 8, 7, 6}) : (Values{8, 6, 4, 2}));
  }
}

TEST(SetInputData, AMeanSmallerThanTheImageRepeats) {
  const Handle handle(input_only(2, 1));
  const Values mean{1, 2, 3, 4};
  ravu_set_meanData(handle, mean.data());
  const Values larger(6);
  ravu_set_InputData_byRawData_float(handle, larger.data(), 1, 2, 3, 1);
  ravu_blob* blob = image_of(handle, {10, 10, 10, 10, 10, 10}, 3, 2);
  EXPECT_TRUE(ravu_set_InputData(handle, &blob, 1));
  EXPECT_EQ(input_values(handle), (Values{9, 8, 7, 6, 9, 8}));
}

TEST(SetInputData, ANetworkWithoutPixelsTakesNoneAndItsMeanIsNone) {
  const Handle handle(input_only(0, 1));
  ravu_set_meanData(handle, nullptr);
  ravu_blob* blob = image_of(handle, {1, 2, 3, 4});
  EXPECT_TRUE(ravu_set_InputData(handle, &blob, 1));
  ASSERT_TRUE(ravu_setup_runEngine(handle, RAVU_MODE_CPU));
  ravu_forward(handle, RAVU_MODE_CPU);
  EXPECT_EQ(input_values(handle), Values{});
}

TEST(SetMeanData, CopiesOneImageOfTheInputsSize) {
  const Handle handle(input_only(2, 1), /*batch=*/3);
  Values mean{1, 2, 3, 4};
  ravu_set_meanData(handle, mean.data());
  mean.assign(4, 9);
  const Blob& installed = *handle.network().mean;
  EXPECT_EQ(installed.dims, (Dims{1, 2, 2, 1}));
  EXPECT_EQ(values_of(installed), (Values{1, 2, 3, 4}));
  EXPECT_EQ(installed.layout, kInterleaved);
  EXPECT_EQ(installed.name, "");
}

TEST(SetMeanData, NullInstallsAMeanOfZeros) {
  const Handle handle(input_only(2, 1).set("data_mean", tensor({1, 2, 2, 1}, {1, 2, 3, 4})));
  ravu_set_meanData(handle, nullptr);
  ASSERT_NE(handle.network().mean, nullptr);
  EXPECT_EQ(values_of(*handle.network().mean), Values(4, 0.0F));
}

TEST(SetMeanData, FollowsTheInputsPresentSizeAndLayout) {
  const Handle handle(input_only(2, 1).set("layout", text("BCHW")));
  const Values pixels(12);
  ravu_set_InputData_byRawData_float(handle, pixels.data(), 2, 1, 3, 2);
  ravu_set_meanData(handle, nullptr);
  EXPECT_EQ(handle.network().mean->dims, (Dims{1, 1, 3, 2}));
  EXPECT_EQ(handle.network().mean->count, 6U);
  EXPECT_EQ(handle.network().mean->layout, kPlanar);
}

}  // namespace
}  // namespace ravu::test
