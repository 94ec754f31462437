// Whole networks whose input changes its batch and its size, over and over: equal, bit for bit, to
// a network that was created that way, wherever the layers' shape rules give that. Where they do
// not, the test's name says what happens instead.
#include <gtest/gtest.h>

#include <algorithm>
#include <map>
#include <memory>
#include <string>
#include <utility>

#include "networks/networks.h"

namespace ravu::test {
namespace {

// Grow, shrink, back, again.
const std::vector<int> kBatches{1, 3, 9, 2, 1, 9, 3, 1, 2, 9};

int channels_of(const ReadyNetwork& network) {
  return static_cast<int>(ravu_get_network_inputChannels(network));
}

void expect_batches_like_created(const NaiveNetwork& network, int size) {
  std::map<int, std::unique_ptr<ReadyNetwork>> created;
  for (const int batch : kBatches) {
    auto& ready = created[batch];
    if (!ready) ready = std::make_unique<ReadyNetwork>(network, batch);
  }
  for (const int first : {1, 9}) {
    const ReadyNetwork changed(network, first);
    unsigned seed = 0;
    for (const int batch : kBatches) {
      const Tensor images = random_tensor(batch, size, size, channels_of(changed), ++seed);
      const auto values = changed.run(images);
      EXPECT_EQ(bits_of(values), bits_of(created[batch]->run(images)))
          << "created for " << first << ", step " << seed << ": " << batch;
      const ravu_blob_view view = ravu_getOutput_blob(changed, 0);
      EXPECT_EQ(dims_of(view), dims_of(ravu_getOutput_blob(*created[batch], 0)));
    }
  }
}

class BatchChange : public testing::TestWithParam<NamedNetwork> {};

TEST_P(BatchChange, IsLikeCreatingTheNetworkForThatBatch) {
  expect_batches_like_created(GetParam().make(12), 12);
}

TEST(CroppedNetworkBatchChange, IsLikeCreatingTheNetworkForThatBatch) {
  expect_batches_like_created(cropped_classifier(), 12);
}

TEST_P(BatchChange, BeforeTheSetUpIsLikeCreatingTheNetworkForThatBatch) {
  const NaiveNetwork network = GetParam().make(12);
  const Handle changed(network.model(), 1);
  const ReadyNetwork created(network, 3);
  const Tensor images = random_tensor(3, 12, 12, channels_of(created), 1);
  ravu_set_InputData_byRawData_float(changed, images.values.data(), 3, 12, 12,
                                     static_cast<std::uint32_t>(images.channels));
  ASSERT_TRUE(ravu_setup_runEngine(changed, RAVU_MODE_CPU));
  ravu_forward(changed, RAVU_MODE_CPU);
  EXPECT_EQ(bits_of(values_of(ravu_getOutput_blob(changed, 0))), bits_of(created.run(images)));
}

TEST_P(BatchChange, WithBytesIsLikeTheSameNumbersAsFloats) {
  const NaiveNetwork network = GetParam().make(12);
  const ReadyNetwork changed(network, 1);
  const ReadyNetwork created(network, 2);
  Tensor images = random_tensor(2, 12, 12, channels_of(created), 1);
  Bytes bytes;
  for (float& value : images.values) {
    bytes.push_back(static_cast<std::uint8_t>((value + 1) * 127));
    value = bytes.back();
  }
  const auto expected = bits_of(created.run(images));
  const auto channels = static_cast<std::uint32_t>(images.channels);
  ravu_set_InputData_byRawData_byte(changed, bytes.data(), 2, 12, 12, channels);
  ravu_forward(changed, RAVU_MODE_CPU);
  EXPECT_EQ(bits_of(values_of(ravu_getOutput_blob(changed, 0))), expected);

  // The fixed test feed gives every item the first image.
  std::copy_n(images.values.begin(), images.values.size() / 2,
              images.values.begin() + static_cast<std::ptrdiff_t>(images.values.size() / 2));
  const auto repeated = bits_of(created.run(images));
  ravu_set_InputData_byRawData_test(changed, bytes.data(), 2, 12, 12, channels);
  ravu_forward(changed, RAVU_MODE_CPU);
  EXPECT_EQ(bits_of(values_of(ravu_getOutput_blob(changed, 0))), repeated);
}

INSTANTIATE_TEST_SUITE_P(Networks, BatchChange, testing::ValuesIn(classifying_networks()),
                         [](const auto& network) { return std::string(network.param.name); });

class SizeChange : public testing::TestWithParam<NamedNetwork> {};

TEST_P(SizeChange, IsLikeCreatingTheNetworkForThatSize) {
  for (const int first : {12, 21}) {
    const ReadyNetwork changed(GetParam().make(first), 1);
    unsigned seed = 0;
    for (const auto& [batch, size] : std::vector<std::pair<int, int>>{{1, 16},
                                                                      {1, 9},
                                                                      {3, 9},
                                                                      {1, 21},
                                                                      {2, 21},
                                                                      {2, 12},
                                                                      {1, 12},
                                                                      {9, 13},
                                                                      {1, 7},
                                                                      {1, 16}}) {
      const ReadyNetwork created(GetParam().make(size), batch);
      const Tensor images = random_tensor(batch, size, size, channels_of(changed), ++seed);
      EXPECT_EQ(bits_of(changed.run(images)), bits_of(created.run(images)))
          << "created for " << first << ", step " << seed << ": " << batch << " of " << size;
      EXPECT_EQ(dims_of(ravu_getOutput_blob(changed, 0)), dims_of(ravu_getOutput_blob(created, 0)));
    }
  }
}

TEST_P(SizeChange, ToImagesThatAreNotSquareAgreesWithTheNaiveEvaluation) {
  const NaiveNetwork network = GetParam().make(12);
  const ReadyNetwork changed(network, 1);
  const auto name = changed.network().outputs[0]->name;
  for (const auto& [height, width] :
       std::vector<std::pair<int, int>>{{8, 15}, {15, 8}, {12, 12}, {7, 23}, {8, 15}}) {
    const Tensor images = random_tensor(2, height, width, channels_of(changed), 3);
    EXPECT_TRUE(near(changed.run(images), network.evaluate(images).at(name).values))
        << height << " x " << width;
  }
}

INSTANTIATE_TEST_SUITE_P(Networks, SizeChange, testing::ValuesIn(fully_convolutional_networks()),
                         [](const auto& network) { return std::string(network.param.name); });

// Fully connected layers read features x batch values from the start of what they are given, and
// the mean repeats; the naive evaluation does the same.
TEST(ClassifierSizeChange, ToALargerOneMakesTheFullyConnectedLayerReadTheFirstFeaturesOfTheMap) {
  const NaiveNetwork network = classifier(12);
  const ReadyNetwork changed(network, 1);
  for (const int batch : {1, 2}) {
    const Tensor images = random_tensor(batch, 18, 18, 3, 4);
    EXPECT_TRUE(near(changed.run(images), network.evaluate(images).at("s").values));
    EXPECT_EQ(dims_of(ravu_getOutput_blob(changed, 0)),
              (Dims{static_cast<std::uint32_t>(batch), 1, 1, 5}));
  }
}

TEST(ClassifierSizeChange, ToASmallerOneMakesTheFullyConnectedLayerKeepItsLastScores) {
  const ReadyNetwork changed(classifier(12), 1);
  const Tensor images = random_tensor(1, 12, 12, 3, 4);
  const auto before = changed.run(images);
  EXPECT_EQ(bits_of(changed.run(random_tensor(1, 8, 8, 3, 5))), bits_of(before));
  EXPECT_EQ(bits_of(changed.run(images)), bits_of(before)) << "back at the loaded size";
}

// The crop cuts rows of the loaded width out of the flat values, so only the first ones count.
TEST(CroppedNetworkSizeChange, ToALargerOneLeavesTheCropsGeometryThatOfTheLoadedModel) {
  const NaiveNetwork network = cropped_classifier();
  const ReadyNetwork changed(network, 1);
  for (const int batch : {1, 2}) {
    Tensor images = random_tensor(batch, 16, 16, 3, 4);
    const auto values = changed.run(images);
    images.height = images.width = 12;
    EXPECT_TRUE(near(values, network.evaluate(images).at("s").values));
  }
}

TEST(CroppedNetworkSizeChange, ToOneBelowTheCropsLeavesTheLastImageInItsPlace) {
  const ReadyNetwork changed(cropped_classifier(), 1);
  const auto before = changed.run(random_tensor(1, 12, 12, 3, 4));
  EXPECT_EQ(bits_of(changed.run(random_tensor(1, 10, 10, 3, 5))), bits_of(before));
}

// Flatten keeps the dims of the loaded model, so all behind it keep the loaded batch.
TEST(DetectorBatchChange, ToMoreImagesShowsTheDetectionsOfTheFirstOnes) {
  for (const int loaded : {1, 2}) {
    const ReadyNetwork changed(detector(), loaded);
    const ReadyNetwork created(detector(), loaded);
    Tensor images = random_tensor(3, kDetectorSize, kDetectorSize, 3, 6);
    const auto rows = changed.run(images);
    images.batch = loaded;
    images.values.resize(images.values.size() / 3 * static_cast<std::size_t>(loaded));
    EXPECT_TRUE(near(changed.blob("locations").values,
                     (created.run(images), created.blob("locations").values)));
    EXPECT_EQ(dims_of(ravu_getOutput_blob(changed, 0)), (Dims{1, 1, 30, 7}));
    EXPECT_TRUE(near(rows, created.run(images)));
  }
}

TEST(DetectorBatchChange, ToFewerImagesLeavesTheDetectionsOfTheRunBefore) {
  const ReadyNetwork changed(detector(), 2);
  const auto before = changed.run(random_tensor(2, kDetectorSize, kDetectorSize, 3, 6));
  const auto after = changed.run(random_tensor(1, kDetectorSize, kDetectorSize, 3, 7));
  EXPECT_EQ(bits_of(after), bits_of(before));
}

TEST(DetectorShapeChange, ThereAndBackIsLikeNoChange) {
  for (const int loaded : {1, 2}) {
    const ReadyNetwork changed(detector(), loaded);
    const Tensor images = random_tensor(loaded, kDetectorSize, kDetectorSize, 3, 6);
    const auto before = changed.run(images);
    for (const auto& [batch, size] :
         std::vector<std::pair<int, int>>{{3, 20}, {1, 20}, {2, 28}, {1, 13}, {9, 5}, {1, 40}}) {
      changed.run(random_tensor(batch, size, size, 3, 7));
      EXPECT_EQ(bits_of(changed.run(images)), bits_of(before)) << batch << " of " << size;
    }
  }
}

}  // namespace
}  // namespace ravu::test
