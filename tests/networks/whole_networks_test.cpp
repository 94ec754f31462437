// Whole networks, from the file to the output, against their naive evaluation; and what a saved one
// gives when it is loaded again.
#include <gtest/gtest.h>

#include <string>

#include "networks/networks.h"

namespace ravu::test {
namespace {

class WholeNetwork : public testing::TestWithParam<NamedNetwork> {};

TEST_P(WholeNetwork, AgreesWithItsNaiveEvaluation) {
  for (const int size : {12, 17}) {
    const NaiveNetwork network = GetParam().make(size);
    for (const int batch : {1, 3}) {
      const ReadyNetwork ready(network, batch);
      const int channels = static_cast<int>(ravu_get_network_inputChannels(ready));
      const Tensor images = random_tensor(batch, size, size, channels, 7);
      const Tensors naive = network.evaluate(images);
      const auto values = ready.run(images);
      const auto last = ready.network().outputs[0]->name;
      EXPECT_TRUE(near(values, naive.at(last).values)) << "size " << size << ", batch " << batch;
      const auto others = ready.run(random_tensor(batch, size, size, channels, 8));
      EXPECT_FALSE(near(others, naive.at(last).values)) << "other images look the same";
    }
  }
}

// The mean is subtracted from the input where it stands, so only new input gives the same again.
TEST_P(WholeNetwork, GivesTheSameBitsForTheSameInput) {
  const ReadyNetwork ready(GetParam().make(12), 2);
  const int channels = static_cast<int>(ravu_get_network_inputChannels(ready));
  const Tensor images = random_tensor(2, 12, 12, channels, 1);
  const auto first = ready.run(images);
  ready.run(random_tensor(2, 12, 12, channels, 2));
  EXPECT_EQ(bits_of(ready.run(images)), bits_of(first));
}

TEST(CroppedNetwork, AgreesWithItsNaiveEvaluation) {
  const NaiveNetwork network = cropped_classifier();
  for (const int batch : {1, 3}) {
    const ReadyNetwork ready(network, batch);
    const Tensor images = random_tensor(batch, 12, 12, 3, 7);
    EXPECT_TRUE(near(ready.run(images), network.evaluate(images).at("s").values));
  }
}

// What suppression and the limits keep hangs on comparisons that rounding can turn, so the last
// stage is evaluated over the engine's own heads.
TEST(DetectorNetwork, AgreesWithItsNaiveEvaluation) {
  const NaiveNetwork network = detector();
  for (const int batch : {1, 2}) {
    const ReadyNetwork ready(network, batch);
    const Tensor images = random_tensor(batch, kDetectorSize, kDetectorSize, 3, 7);
    const Tensors naive = network.evaluate(images);
    const auto rows = ready.run(images);
    for (const char* name : {"locations", "scores", "priors"}) {
      EXPECT_TRUE(near(ready.blob(name).values, naive.at(name).values)) << name;
    }
    const auto expected = naive_detections(detector_options(), ready.blob("locations"),
                                           ready.blob("scores"), ready.blob("priors"));
    EXPECT_EQ(bits_of(rows), bits_of(expected));
    EXPECT_NE(rows[7 * 5 + 2], 0) << "at least six detections";
  }
}

// Runs the network, saves it, and runs what was saved.
void expect_equal_after_reload(const NaiveNetwork& network, const Tensor& images,
                               bool set_up_before) {
  const Handle original(network.model(), static_cast<std::uint32_t>(images.batch));
  const TemporaryFile file({});
  if (!set_up_before) ravu_save_network_to_private(original, file.path(), /*quantise=*/false);
  const ReadyNetwork ready(network, images.batch);
  const auto expected = ready.run(images);
  if (set_up_before) ravu_save_network_to_private(ready, file.path(), /*quantise=*/false);

  ravu_network* reloaded =
      ravu_create_network_private(file.path(), false, static_cast<std::uint32_t>(images.batch));
  ASSERT_NE(reloaded, nullptr);
  EXPECT_TRUE(ravu_setup_runEngine(reloaded, RAVU_MODE_CPU));
  const auto size = [](int n) { return static_cast<std::uint32_t>(n); };
  ravu_set_InputData_byRawData_float(reloaded, images.values.data(), size(images.batch),
                                     size(images.height), size(images.width),
                                     size(images.channels));
  ravu_forward(reloaded, RAVU_MODE_CPU);
  EXPECT_EQ(bits_of(values_of(ravu_getOutput_blob(reloaded, 0))), bits_of(expected));
  ravu_destroy_network(reloaded);
}

TEST_P(WholeNetwork, SavedAndReloadedGivesTheSameBits) {
  const NaiveNetwork network = GetParam().make(12);
  const int channels = GetParam().name == std::string("grouped") ? 4 : 3;
  for (const bool set_up_before : {false, true}) {
    expect_equal_after_reload(network, random_tensor(2, 12, 12, channels, 5), set_up_before);
  }
}

TEST(CroppedNetwork, SavedAndReloadedGivesTheSameBits) {
  for (const bool set_up_before : {false, true}) {
    expect_equal_after_reload(cropped_classifier(), random_tensor(2, 12, 12, 3, 5), set_up_before);
  }
}

TEST(DetectorNetwork, SavedAndReloadedGivesTheSameBits) {
  const Tensor images = random_tensor(2, kDetectorSize, kDetectorSize, 3, 5);
  for (const bool set_up_before : {false, true}) {
    expect_equal_after_reload(detector(), images, set_up_before);
  }
}

INSTANTIATE_TEST_SUITE_P(Networks, WholeNetwork, testing::ValuesIn(classifying_networks()),
                         [](const auto& network) { return std::string(network.param.name); });

}  // namespace
}  // namespace ravu::test
