// The exported functions but those for input and run modes: null handles, loading, views, labels.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdint>
#include <fstream>
#include <iterator>
#include <limits>
#include <string>

#include "support/handles.h"

namespace ravu::test {
namespace {

using ::testing::ElementsAre;
using ::testing::StartsWith;
using ::testing::internal::CaptureStderr;
using ::testing::internal::CaptureStdout;
using ::testing::internal::GetCapturedStderr;
using ::testing::internal::GetCapturedStdout;

constexpr auto kLowestIndex = std::numeric_limits<std::int32_t>::min();
constexpr auto kHighestIndex = std::numeric_limits<std::int32_t>::max();

TEST(ExportsNull, EveryFunctionAnswersANullHandle) {
  CaptureStdout();
  CaptureStderr();
  const float values[4] = {};
  const std::uint8_t bytes[4] = {};
  ravu_blob* no_blobs[1] = {nullptr};
  ravu_save_network_to_private(nullptr, "nowhere", true);
  ravu_destroy_network(nullptr);
  EXPECT_EQ(ravu_get_network_inputSize(nullptr), 0U);
  EXPECT_EQ(ravu_get_network_inputChannels(nullptr), 0U);
  ravu_set_meanData(nullptr, values);
  EXPECT_EQ(ravu_create_data_blob(nullptr, bytes, 2, 2, 1, 2), nullptr);
  EXPECT_FALSE(ravu_set_InputData(nullptr, no_blobs, 1));
  ravu_set_InputData_byRawData_float(nullptr, values, 1, 2, 2, 1);
  ravu_set_InputData_byRawData_byte(nullptr, bytes, 1, 2, 2, 1);
  ravu_set_InputData_byRawData_test(nullptr, bytes, 1, 2, 2, 1);
  ravu_release_netowrk_weights(nullptr);
  for (std::uint32_t mode = 0; mode < 7; ++mode) {
    EXPECT_FALSE(ravu_setup_runEngine(nullptr, mode));
    ravu_forward(nullptr, mode);
  }
  EXPECT_EQ(ravu_getOutput_blob_num(nullptr), 0);
  EXPECT_TRUE(is_all_zero(ravu_getOutput_blob(nullptr, 0)));
  EXPECT_EQ(ravu_getOutput_Labels(nullptr), nullptr);
  EXPECT_TRUE(is_all_zero(ravu_hidden_blob(nullptr, 0)));
  ravu_print_timeTable(nullptr);
  EXPECT_EQ(GetCapturedStdout(), "");
  EXPECT_EQ(GetCapturedStderr(), "");
}

TEST(ExportsCreate, AFileThatIsNotThereGivesNullAndTheLine) {
  CaptureStderr();
  EXPECT_EQ(ravu_create_network_private("no/such/model", false, 1), nullptr);
  EXPECT_EQ(GetCapturedStderr(), "Fail to parse model (no/such/model)\n");
}

TEST(ExportsCreate, ANullPathIsAFileThatCannotBeRead) {
  CaptureStderr();
  EXPECT_EQ(ravu_create_network_private(nullptr, false, 1), nullptr);
  EXPECT_EQ(GetCapturedStderr(), "Fail to parse model ()\n");
}

TEST(ExportsCreate, ABatchOfZeroCannotBeBuilt) {
  const TemporaryFile file(small_classifier().bytes());
  CaptureStderr();
  EXPECT_EQ(ravu_create_network_private(file.path(), false, 0), nullptr);
  EXPECT_EQ(GetCapturedStderr(), "Fail to parse model (" + std::string(file.path()) + ")\n");
}

TEST(ExportsCreate, ABatchThatNoTensorCanHoldCannotBeBuilt) {
  const TemporaryFile file(small_classifier().bytes());
  CaptureStderr();
  EXPECT_EQ(ravu_create_network_private(file.path(), false, 0xFFFFFFFFU), nullptr);
  EXPECT_THAT(GetCapturedStderr(), StartsWith("Fail to parse model ("));
}

TEST(ExportsCreate, TheBatchIsTheInputsFirstDim) {
  const Handle handle(small_classifier(), /*batch=*/3);
  EXPECT_EQ(handle.network().input->dims, (Dims{3, 2, 2, 1}));
  EXPECT_EQ(dims_of(ravu_getOutput_blob(handle, 0)), (Dims{3, 1, 1, 2}));
}

TEST(ExportsCreate, TheChannelMeanFlagAveragesTheMeanImage) {
  ModelBuilder model = input_only(2, 2);
  model.set("data_mean", tensor({1, 2, 2, 2}, {1, 10, 2, 20, 3, 30, 6, 60}));
  const Handle image(model, 1, /*channel_mean=*/false);
  EXPECT_EQ(values_of(*image.network().mean), (std::vector<float>{1, 10, 2, 20, 3, 30, 6, 60}));
  const Handle average(model, 1, /*channel_mean=*/true);
  EXPECT_EQ(values_of(*average.network().mean), (std::vector<float>{3, 30, 3, 30, 3, 30, 3, 30}));
}

TEST(ExportsCreate, TheChannelMeanFlagOfAModelWithoutMeanDoesNothing) {
  const Handle handle(small_classifier(), 1, /*channel_mean=*/true);
  EXPECT_EQ(handle.network().mean, nullptr);
}

TEST(ExportsCreate, TheOtherSourceFormatIsAlwaysNull) {
  EXPECT_EQ(ravu_create_network_caffe(), nullptr);
}

TEST(ExportsCreate, DistinctNetworksShareNothing) {
  const Handle first(small_classifier());
  const Handle second(small_classifier());
  ASSERT_TRUE(ravu_setup_runEngine(first, RAVU_MODE_CPU));
  ASSERT_TRUE(ravu_setup_runEngine(second, RAVU_MODE_CPU));
  EXPECT_EQ(run(first, {1, 2, 3, 4}), (std::vector<float>{5, 13}));
  EXPECT_EQ(run(second, {0, 0, 0, 1}), (std::vector<float>{2, 7}));
  EXPECT_EQ(values_of(ravu_getOutput_blob(first, 0)), (std::vector<float>{5, 13}));
}

TEST(ExportsSave, OfReleasedWeightsSaysSoAndLeavesTheFileAsItWas) {
  const Handle handle(small_classifier());
  ravu_release_netowrk_weights(handle);
  const TemporaryFile file(Bytes{1, 2, 3});
  CaptureStderr();
  ravu_save_network_to_private(handle, file.path(), false);
  EXPECT_EQ(GetCapturedStderr(), "Fail to save graph to " + std::string(file.path()) + "\n");
  std::ifstream saved(file.path(), std::ios::binary);
  const std::string content{std::istreambuf_iterator<char>(saved), {}};
  EXPECT_EQ(content, "\1\2\3");
}

TEST(ExportsSave, ToAFolderThatIsNotThereSaysSo) {
  const Handle handle(small_classifier());
  CaptureStderr();
  ravu_save_network_to_private(handle, "no/such/folder/model", false);
  EXPECT_EQ(GetCapturedStderr(), "Fail to save graph to no/such/folder/model\n");
}

TEST(ExportsSave, ToANullPathSaysSo) {
  const Handle handle(small_classifier());
  CaptureStderr();
  ravu_save_network_to_private(handle, nullptr, true);
  EXPECT_EQ(GetCapturedStderr(), "Fail to save graph to \n");
}

TEST(ExportsSizes, AreTheModelsAndStayWhenTheInputChanges) {
  const Handle handle(input_only(6, 3));
  EXPECT_EQ(ravu_get_network_inputSize(handle), 6U);
  EXPECT_EQ(ravu_get_network_inputChannels(handle), 3U);
  const std::vector<float> pixels(4);
  ravu_set_InputData_byRawData_float(handle, pixels.data(), 1, 2, 2, 1);
  EXPECT_EQ(handle.network().input->dims, (Dims{1, 2, 2, 1}));
  EXPECT_EQ(ravu_get_network_inputSize(handle), 6U);
  EXPECT_EQ(ravu_get_network_inputChannels(handle), 3U);
}

TEST(ExportsOutputs, AnIndexOutsideTheListIsAllZero) {
  const Handle handle(small_classifier());
  ASSERT_EQ(ravu_getOutput_blob_num(handle), 1);
  for (const std::int32_t index : {-1, 1, kLowestIndex, kHighestIndex}) {
    EXPECT_TRUE(is_all_zero(ravu_getOutput_blob(handle, index))) << index;
  }
}

TEST(ExportsOutputs, AreListedInTheOrderOfTheLayers) {
  ModelBuilder model(1, 2);
  model.add_layer(neuron("data", "second", 2, 3, std::vector<float>(6), {1, 2, 3}));
  model.add_layer(neuron("data", "first", 2, 1, std::vector<float>(2), {4}));
  const Handle handle(model);
  ASSERT_TRUE(ravu_setup_runEngine(handle, RAVU_MODE_CPU));
  ravu_forward(handle, RAVU_MODE_CPU);
  ASSERT_EQ(ravu_getOutput_blob_num(handle), 2);
  EXPECT_EQ(values_of(ravu_getOutput_blob(handle, 0)), (std::vector<float>{1, 2, 3}));
  EXPECT_EQ(values_of(ravu_getOutput_blob(handle, 1)), (std::vector<float>{4}));
}

TEST(ExportsOutputs, HaveStorageFromTheStart) {
  const Handle handle(small_classifier());
  EXPECT_EQ(values_of(ravu_getOutput_blob(handle, 0)), (std::vector<float>{0, 0}));
}

TEST(ExportsOutputs, ABlobThatALayerWritesInPlaceIsListedForEachWriter) {
  ModelBuilder model(1, 2);
  model.add_layer(neuron("data", "scores", 2, 1, {1, 1}, {0}));
  model.add_layer(layer("relu", {"scores"}, {"scores"}));
  const Handle handle(model);
  ASSERT_EQ(ravu_getOutput_blob_num(handle), 2);
  EXPECT_EQ(ravu_getOutput_blob(handle, 0).data, ravu_getOutput_blob(handle, 1).data);
}

TEST(ExportsOutputs, AreNoneForANetworkWithoutLayers) {
  const Handle handle(input_only(2, 1));
  EXPECT_EQ(ravu_getOutput_blob_num(handle), 0);
  EXPECT_TRUE(is_all_zero(ravu_getOutput_blob(handle, 0)));
  EXPECT_TRUE(is_all_zero(ravu_hidden_blob(handle, 0)));
}

TEST(ExportsHiddenBlob, IsTheLastOutputOfTheLayerWithThatIndex) {
  const Handle handle(small_classifier());
  ASSERT_TRUE(ravu_setup_runEngine(handle, RAVU_MODE_CPU));
  run(handle, {1, 2, 3, -4});
  EXPECT_EQ(values_of(ravu_hidden_blob(handle, 0)), (std::vector<float>{1, 2, 3, 0}));
  EXPECT_EQ(values_of(ravu_hidden_blob(handle, 1)), (std::vector<float>{3}));
  EXPECT_EQ(values_of(ravu_hidden_blob(handle, 2)), (std::vector<float>{4, 11}));
  EXPECT_EQ(dims_of(ravu_hidden_blob(handle, 0)), (Dims{1, 2, 2, 1}));
  for (const std::int32_t index : {-1, 3, kLowestIndex, kHighestIndex}) {
    EXPECT_TRUE(is_all_zero(ravu_hidden_blob(handle, index))) << index;
  }
}

TEST(ExportsHiddenBlob, OfALayerThatBorrowsIsItsInputsStorage) {
  const Handle handle(small_classifier());
  ASSERT_TRUE(ravu_setup_runEngine(handle, RAVU_MODE_CPU));
  EXPECT_NE(ravu_hidden_blob(handle, 0).data, nullptr);
  EXPECT_EQ(ravu_hidden_blob(handle, 0).data, handle.network().input->data);
}

TEST(ExportsHiddenBlob, OfAnInPlaceLayerIsItsInputsStorage) {
  ModelBuilder model(1, 2);
  model.add_layer(neuron("data", "scores", 2, 1, {1, 1}, {0}));
  model.add_layer(layer("relu", {"scores"}, {"scores"}));
  const Handle handle(model);
  ASSERT_TRUE(ravu_setup_runEngine(handle, RAVU_MODE_CPU));
  EXPECT_NE(ravu_hidden_blob(handle, 1).data, nullptr);
  EXPECT_EQ(ravu_hidden_blob(handle, 1).data, ravu_hidden_blob(handle, 0).data);
}

TEST(ExportsHiddenBlob, WithoutStorageShowsItsDimsAndNoElements) {
  const Handle handle(small_classifier());
  const ravu_blob_view view = ravu_hidden_blob(handle, 1);
  EXPECT_EQ(view.data, nullptr);
  EXPECT_EQ(view.count, 0U);
  EXPECT_EQ(dims_of(view), (Dims{1, 1, 1, 1}));
}

TEST(ExportsHiddenBlob, OfABorrowerThatOutgrewItsLenderShowsNoElements) {
  Network network;
  network.set_input(make_blob({1, 1, 1, 2}, {1, 2}));
  auto layer = std::make_unique<BaseLayer>();
  Blob& output = network.add_blob(*make_shape(1, 1, 1, 3, kInterleaved), "output");
  layer->outputs.push_back(&output);
  network.add_layer(std::move(layer));
  borrow(output, *network.input);
  const ravu_blob_view view = ravu_hidden_blob(to_handle(&network), 0);
  EXPECT_EQ(view.data, nullptr);
  EXPECT_EQ(view.count, 0U);
  EXPECT_EQ(dims_of(view), (Dims{1, 1, 1, 3}));
}

TEST(ExportsHiddenBlob, OfALayerWithoutOutputsIsAllZero) {
  ModelBuilder model(2, 1);
  model.add_layer(layer("relu", {"data"}, {}));
  const Handle handle(model);
  ASSERT_TRUE(ravu_setup_runEngine(handle, RAVU_MODE_CPU));
  ravu_forward(handle, RAVU_MODE_CPU);
  EXPECT_TRUE(is_all_zero(ravu_hidden_blob(handle, 0)));
}

TEST(ExportsLabels, AreTheModelsInItsOrder) {
  ModelBuilder model = small_classifier();
  model.set("label_names", texts({"zebra", "", "ant", "ant"}));
  const Handle handle(model);
  char** labels = ravu_getOutput_Labels(handle);
  EXPECT_THAT((std::vector<std::string>{labels, labels + 4}),
              ElementsAre("zebra", "", "ant", "ant"));
}

TEST(ExportsLabels, AreTheSameArrayAtEveryCall) {
  const Handle handle(small_classifier());
  EXPECT_EQ(ravu_getOutput_Labels(handle), ravu_getOutput_Labels(handle));
}

TEST(ExportsTimeTable, PrintsNothing) {
  const Handle handle(small_classifier());
  CaptureStdout();
  CaptureStderr();
  ravu_print_timeTable(handle);
  EXPECT_EQ(GetCapturedStdout(), "");
  EXPECT_EQ(GetCapturedStderr(), "");
}

}  // namespace
}  // namespace ravu::test
