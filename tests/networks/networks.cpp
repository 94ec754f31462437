// Networks of a few layers, so that their naive evaluation takes milliseconds.
#include "networks/networks.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <ostream>

namespace ravu::test {
namespace {

constexpr int kClasses = 4;
constexpr int kPriorsPerCell = 3;
constexpr int kRows = (5 * 5 + 3 * 3) * kPriorsPerCell;

void classify(NaiveNetwork& network, int features) {
  network.conv("data", "c1", {.kernels = 8, .kernel = 3, .pad = 1});
  network.relu("c1", "c1");
  network.pool("c1", "p1", {.maximum = true, .kernel = 2, .stride = 2});
  network.conv("p1", "c2", {.kernels = 6, .kernel = 3});
  network.relu("c2", "r2", 0.1F);
  network.pool("r2", "p2", {.maximum = false, .kernel = 2, .stride = 2});
  network.fully_connected("p2", "f", features, 5);
  network.softmax("f", "s");
}

// The two heads of a feature map, and its priors.
void add_heads(NaiveNetwork& network, const char* map, std::array<const char*, 5> names,
               float min_size) {
  network.conv(map, names[0], {.kernels = 4 * kPriorsPerCell, .kernel = 3, .pad = 1});
  network.transpose(names[0], names[0]);
  network.flatten(names[0], names[1]);
  network.conv(map, names[2], {.kernels = kClasses * kPriorsPerCell, .kernel = 1});
  network.flatten(names[2], names[3]);
  network.priors(map, names[4],
                 {.min_sizes = {min_size},
                  .max_sizes = {min_size * 2},
                  .aspect_ratios = {1, 2},
                  .per_cell = kPriorsPerCell});
}

}  // namespace

NaiveNetwork classifier(int size) {
  NaiveNetwork network(size, 3);
  network.mean_image();
  const int last = (size / 2 - 2) / 2;
  classify(network, last * last * 6);
  return network;
}

NaiveNetwork cropped_classifier() {
  NaiveNetwork network(12, 3);
  network.crop_to(8);
  classify(network, 6);
  return network;
}

NaiveNetwork residual(int size) {
  NaiveNetwork network(size, 3);
  network.conv("data", "c0", {.kernels = 8, .kernel = 3, .pad = 1});
  network.batch_norm("c0", "c0");
  network.scale("c0", "c0");
  network.relu("c0", "c0");
  network.conv("c0", "c1", {.kernels = 8, .kernel = 3, .pad = 1});
  network.batch_norm("c1", "b1");
  network.scale("b1", "s1");
  network.relu("s1", "r1");
  network.conv("r1", "c2", {.kernels = 8, .kernel = 1});
  network.sum("c0", "c2", "e");
  network.relu("e", "e");
  network.pool("e", "p", {.maximum = false, .kernel = 3, .stride = 2, .pad = 1});
  return network;
}

NaiveNetwork grouped(int size) {
  NaiveNetwork network(size, 4);
  network.conv("data", "g1", {.kernels = 5, .kernel = 3, .pad = 1, .groups = 2});
  network.relu("g1", "g1");
  network.lrn("g1", "n1", 5);
  network.pool("n1", "p1", {.maximum = true, .kernel = 3, .stride = 2});
  network.conv("p1", "g2", {.kernels = 3, .kernel = 3, .stride = 2, .pad = 1, .groups = 2});
  network.lrn("g2", "n2", 3);
  network.conv("n2", "c3", {.kernels = 5, .kernel = 1});
  network.softmax("c3", "s");
  return network;
}

NaiveNetwork depthwise(int size) {
  NaiveNetwork network(size, 3);
  network.conv("data", "c1", {.kernels = 6, .kernel = 3, .stride = 2, .pad = 1});
  network.prelu("c1", "a1");
  network.conv("a1", "d2", {.kernels = 1, .kernel = 3, .pad = 1, .groups = 6});
  network.batch_norm("d2", "d2");
  network.scale("d2", "d2");
  network.prelu("d2", "a2");
  network.conv("a2", "c3", {.kernels = 4, .kernel = 1});
  network.power_in_place("c3", 2, 0.5F, 0.25F);
  return network;
}

NaiveNetwork detector() {
  NaiveNetwork network(kDetectorSize, 3);
  network.conv("data", "c1", {.kernels = 6, .kernel = 3, .stride = 2, .pad = 1});
  network.relu("c1", "c1");
  network.conv("c1", "m1", {.kernels = 8, .kernel = 3, .stride = 2, .pad = 1});
  network.l2_norm("m1", "n1", 4);
  network.conv("m1", "m2", {.kernels = 8, .kernel = 3, .stride = 2, .pad = 1});
  network.relu("m2", "m2");
  add_heads(network, "n1", {"l1", "lf1", "k1", "kf1", "p1"}, 4);
  add_heads(network, "m2", {"l2", "lf2", "k2", "kf2", "p2"}, 8);
  network.concat("lf1", "lf2", "locations");
  network.concat("kf1", "kf2", "k");
  network.concat("p1", "p2", "priors");
  network.reshape_to_rows("k", "rows", kRows, kClasses);
  network.softmax("rows", "probabilities");
  network.flatten("probabilities", "scores");
  network.detections("locations", "scores", "priors", "detections", detector_options());
  return network;
}

DetectionOptions detector_options() {
  return {.priors = kRows, .classes = kClasses, .keep_top_k = 30, .confidence_threshold = 0.4F};
}

void PrintTo(const NamedNetwork& network, std::ostream* out) {
  *out << network.name;
}

std::vector<NamedNetwork> classifying_networks() {
  auto networks = fully_convolutional_networks();
  networks.push_back({"classifier", classifier});
  return networks;
}

std::vector<NamedNetwork> fully_convolutional_networks() {
  return {{"residual", residual}, {"grouped", grouped}, {"depthwise", depthwise}};
}

ReadyNetwork::ReadyNetwork(const NaiveNetwork& network, int batch)
    : Handle(network.model(), static_cast<std::uint32_t>(batch)) {
  EXPECT_TRUE(ravu_setup_runEngine(*this, RAVU_MODE_CPU));
}

std::vector<float> ReadyNetwork::run(const Tensor& images) const {
  const auto size = [](int n) { return static_cast<std::uint32_t>(n); };
  ravu_set_InputData_byRawData_float(*this, images.values.data(), size(images.batch),
                                     size(images.height), size(images.width),
                                     size(images.channels));
  ravu_forward(*this, RAVU_MODE_CPU);
  return values_of(ravu_getOutput_blob(*this, 0));
}

Tensor ReadyNetwork::blob(const char* name) const {
  const auto found = network().blobs_by_name.find(name);
  if (found == network().blobs_by_name.end()) return {};
  const Blob& blob = *found->second;
  const auto dim = [&](std::size_t i) { return static_cast<int>(blob.dims[i]); };
  return {dim(0), dim(1), dim(2), dim(3), values_of(blob)};
}

testing::AssertionResult near(const std::vector<float>& values,
                              const std::vector<float>& expected) {
  if (values.size() != expected.size()) {
    return testing::AssertionFailure() << values.size() << " values, not " << expected.size();
  }
  float greatest = 0;
  for (const float value : expected) greatest = std::max(greatest, std::abs(value));
  for (std::size_t i = 0; i < values.size(); ++i) {
    if (std::abs(values[i] - expected[i]) <= 1e-3F * greatest) continue;
    return testing::AssertionFailure()
           << "value " << i << " is " << values[i] << ", not " << expected[i];
  }
  return testing::AssertionSuccess();
}

}  // namespace ravu::test
