// Layers that are computed together with the one before: who is linked, and that nobody can see the
// difference. Every test compares with the same network after unlink_followers, bit for bit.
#include "graph/fusion.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <fstream>
#include <iterator>
#include <map>
#include <string>

#include "graph/cpu_backend.h"
#include "graph/ravuGraph.h"
#include "networks/networks.h"
#include "support/captured.h"

namespace ravu::test {
namespace {

using BlobBits = std::map<std::string, std::vector<std::uint32_t>>;

// What an outside reader can see: every Blob by its name.
BlobBits all_blobs(const ReadyNetwork& network) {
  BlobBits blobs;
  for (const auto& [name, blob] : network.network().blobs_by_name) {
    blobs[name] = blob->data == nullptr ? std::vector<std::uint32_t>{} : bits_of(values_of(*blob));
  }
  return blobs;
}

// How many followers each layer has that has any.
std::map<std::size_t, std::size_t> links_of(const Network& network) {
  std::map<std::size_t, std::size_t> links;
  for (std::size_t i = 0; i < network.layers.size(); ++i) {
    for (const BaseLayer* follower : network.layers[i]->followers) links[i] += follower != nullptr;
    if (links[i] == 0) links.erase(i);
  }
  return links;
}

std::size_t followers(const ReadyNetwork& network) {
  std::size_t count = 0;
  for (const auto& [layer, links] : links_of(network.network())) count += links;
  return count;
}

// The same network twice, once without links.
struct Pair {
  explicit Pair(const NaiveNetwork& model, int batch = 1, std::size_t threads = 1)
      : fused(model, batch), separate(model, batch) {
    for (const ReadyNetwork* network : {&fused, &separate}) {
      network->network().workspace.workers().set_threads(threads);
    }
    unlink_followers(separate.network());
    channels = static_cast<int>(ravu_get_network_inputChannels(fused));
  }

  // Runs both on the same images.
  void run(int batch, int height, int width, unsigned seed) {
    const Tensor images = random_tensor(batch, height, width, channels, seed);
    fused.run(images);
    feed_and_unlink(images);
  }

  void expect_equal() const { EXPECT_EQ(all_blobs(fused), all_blobs(separate)); }

  ReadyNetwork fused, separate;
  int channels = 0;

 private:
  // A shape change links anew, so the links are cut between the new input and the pass.
  void feed_and_unlink(const Tensor& images) {
    const auto size = [](int n) { return static_cast<std::uint32_t>(n); };
    ravu_set_InputData_byRawData_float(separate, images.values.data(), size(images.batch),
                                       size(images.height), size(images.width),
                                       size(images.channels));
    unlink_followers(separate.network());
    ravu_forward(separate, RAVU_MODE_CPU);
  }
};

TEST(Fusion, LinksLayersThatFollowInPlace) {
  const ReadyNetwork network(residual(12));
  // c0 with bn, scale and relu; scale b1 with relu; the sum with relu. The batch normalisation of
  // c1 writes another Blob, so c1 stays by itself.
  EXPECT_EQ(links_of(network.network()),
            (std::map<std::size_t, std::size_t>{{0, 3}, {6, 1}, {9, 1}}));
}

class FusedNetwork : public testing::TestWithParam<NamedNetwork> {};

TEST_P(FusedNetwork, HoldsInEveryBlobWhatSeparatePassesGive) {
  for (const int batch : {1, 3}) {
    for (const std::size_t threads : {1, 2, 3}) {
      Pair pair(GetParam().make(15), batch, threads);
      EXPECT_GT(followers(pair.fused), 0U);
      pair.run(batch, 15, 15, 7);
      pair.expect_equal();
    }
  }
}

INSTANTIATE_TEST_SUITE_P(Networks, FusedNetwork, testing::ValuesIn(classifying_networks()),
                         [](const auto& network) { return std::string(network.param.name); });

TEST(Fusion, GoesOnAfterShapeChanges) {
  Pair pair(residual(12));
  const std::size_t before = followers(pair.fused);
  for (const int size : {16, 9, 12}) {
    pair.run(2, size, size, static_cast<unsigned>(size));
    EXPECT_EQ(followers(pair.fused), before);
    pair.expect_equal();
  }
}

NaiveNetwork branched() {
  NaiveNetwork network(12, 3);
  network.conv("data", "a", {.kernels = 4, .kernel = 3, .pad = 1});
  network.pool("a", "p", {.maximum = false, .kernel = 2, .stride = 2});
  network.relu("a", "a");
  network.conv("a", "b", {.kernels = 4, .kernel = 3, .pad = 1});
  return network;
}

TEST(Fusion, ABranchBeforeTheRectifierSeesWhatIsNotRectified) {
  const NaiveNetwork network = branched();
  Pair pair(network);
  EXPECT_EQ(followers(pair.fused), 0U);
  const Tensor images = random_tensor(1, 12, 12, 3, 1);
  pair.fused.run(images);
  const Tensor pooled = pair.fused.blob("p");
  EXPECT_TRUE(near(pooled.values, network.evaluate(images).at("p").values));
  EXPECT_LT(*std::min_element(pooled.values.begin(), pooled.values.end()), 0.0F);
}

TEST(Fusion, AnIntermediateViewShowsWhatTheLayersInPlaceMadeOfIt) {
  NaiveNetwork network(12, 3);
  network.conv("data", "a", {.kernels = 4, .kernel = 3, .pad = 1});
  network.relu("a", "r");
  network.conv("r", "b", {.kernels = 4, .kernel = 3, .pad = 1});
  Pair pair(network);
  ASSERT_EQ(followers(pair.fused), 1U);
  pair.run(1, 12, 12, 1);
  const auto convolved = values_of(ravu_hidden_blob(pair.fused, 0));
  const auto rectified = values_of(ravu_hidden_blob(pair.fused, 1));
  EXPECT_EQ(bits_of(convolved), bits_of(values_of(ravu_hidden_blob(pair.separate, 0))));
  EXPECT_EQ(bits_of(convolved), bits_of(rectified)) << "the rectifier works in place";
  EXPECT_GE(*std::min_element(convolved.begin(), convolved.end()), 0.0F);
}

std::string saved(const ReadyNetwork& network) {
  const TemporaryFile file({});
  ravu_save_network_to_private(network, file.path(), /*quantise=*/false);
  std::ifstream stream(file.path(), std::ios::binary);
  return {std::istreambuf_iterator<char>(stream), {}};
}

TEST(Fusion, LeavesWhatIsSavedAlone) {
  Pair pair(residual(12));
  const std::string before = saved(pair.separate);
  pair.run(1, 12, 12, 1);
  EXPECT_EQ(saved(pair.fused), before);
  EXPECT_GT(before.size(), 1000U);
}

TEST(Fusion, EndsWhenTheWeightsAreReleased) {
  for (const auto& [name, make] : classifying_networks()) {
    Pair pair(make(12), 1);
    pair.run(1, 12, 12, 1);
    ravu_release_netowrk_weights(pair.fused);
    ravu_release_netowrk_weights(pair.separate);
    EXPECT_EQ(followers(pair.fused), 0U) << name;
    pair.run(1, 12, 12, 2);
    pair.expect_equal();
  }
}

// A network of a convolution and a rectifier, with the Blob "a" that both write.
struct ConvAndRelu {
  ConvAndRelu() : pair(make()) {
    pair.run(1, 6, 6, 1);
    EXPECT_EQ(followers(pair.fused), 1U);
  }
  static NaiveNetwork make() {
    NaiveNetwork network(6, 2);
    network.conv("data", "a", {.kernels = 3, .kernel = 1});
    network.relu("a", "a", 0.5F);
    return network;
  }
  template <class Change>
  void change(Change apply) {
    apply(pair.fused.network());
    apply(pair.separate.network());
  }
  Pair pair;
};

TEST(Fusion, AFollowerRunsByItselfWhenItsProducerDoesNot) {
  ConvAndRelu rig;
  rig.change([](Network& network) {
    network.layers[0]->ReleaseWeights();
    Blob& a = *network.blobs_by_name.at("a");
    std::fill_n(a.data, a.count, -2.0F);
  });
  rig.pair.run(1, 6, 6, 2);
  rig.pair.expect_equal();
  EXPECT_EQ(rig.pair.fused.blob("a").values, std::vector<float>(108, -1.0F));
}

TEST(Fusion, AFollowerRunsByItselfInAModeThatItsProducerIsNotSetUpFor) {
  ConvAndRelu rig;
  for (const ReadyNetwork* network : {&rig.pair.fused, &rig.pair.separate}) {
    Blob& a = *network->network().blobs_by_name.at("a");
    std::fill_n(a.data, a.count, -2.0F);
    const auto said = captured_stderr([&] { forward_cpu(network->network(), /*mode=*/3); });
    EXPECT_EQ(said, "fixpointconvop_ not initialized yet\n");
  }
  rig.pair.expect_equal();
  EXPECT_EQ(rig.pair.fused.blob("a").values, std::vector<float>(108, -1.0F));
}

TEST(Fusion, AFollowerThatLostItsParametersIsLeftOut) {
  NaiveNetwork network(6, 2);
  network.conv("data", "a", {.kernels = 3, .kernel = 1});
  network.prelu("a", "a");
  Pair pair(network);
  pair.run(1, 6, 6, 1);
  const auto before = all_blobs(pair.fused);
  pair.expect_equal();
  pair.fused.network().layers[1]->ReleaseWeights();
  pair.separate.network().layers[1]->ReleaseWeights();
  pair.run(1, 6, 6, 1);
  pair.expect_equal();
  EXPECT_NE(all_blobs(pair.fused), before);
}

TEST(Fusion, ANewSetUpLinksAnew) {
  ConvAndRelu rig;
  unlink_followers(rig.pair.fused.network());
  ASSERT_TRUE(ravu_setup_runEngine(rig.pair.fused, RAVU_MODE_CPU));
  EXPECT_EQ(followers(rig.pair.fused), 1U);
}

TEST(Fusion, NoMoreFollowersThanStepsFitAreLinked) {
  NaiveNetwork network(6, 2);
  network.conv("data", "a", {.kernels = 3, .kernel = 1});
  for (int i = 0; i < 6; ++i) network.scale("a", "a");
  Pair pair(network);
  // The two scales that are left over run together.
  EXPECT_EQ(links_of(pair.fused.network()), (std::map<std::size_t, std::size_t>{{0, 4}, {5, 1}}));
  pair.run(1, 6, 6, 1);
  pair.expect_equal();
}

}  // namespace
}  // namespace ravu::test
