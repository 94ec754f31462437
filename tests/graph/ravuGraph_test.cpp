// The network: outputs, shape changes as transactions, borrowing after them, and release in every
// order.
#include "graph/ravuGraph.h"

#include <gtest/gtest.h>

#include <new>
#include <string>
#include <utility>

#include "graph/cpu_backend.h"
#include "support/blobs.h"

namespace ravu::test {
namespace {

// Writes its calls to a log; its output follows the input, its output borrows when asked to.
struct ProbeLayer : BaseLayer {
  std::string id;
  std::vector<std::string>* log = nullptr;
  bool in_place = false;
  bool out_of_memory = false;

  ~ProbeLayer() override { note("destroy"); }
  bool Setup(std::int32_t, std::vector<BlobPtr>&) override {
    note("setup");
    AllocateBlobs(in_place);
    if (out_of_memory) throw std::bad_alloc();
    return true;
  }
  void Reshape() override {
    note("reshape");
    if (out_of_memory) throw std::bad_alloc();
    reshape_like_input();
  }
  void ReleaseWeights() override { note("release weights"); }

  void note(const char* what) {
    if (log != nullptr) log->push_back(std::string(what) + " " + id);
  }
};

Shape square(std::uint32_t batch, std::uint32_t side) {
  return *make_shape(batch, side, side, 1, kInterleaved);
}

// A network with an input "data" of two by two, to which layers are added by Blob names.
struct Graph {
  Graph() {
    network.set_input(make_blob({1, 2, 2, 1}, {1, 2, 3, 4}));
    network.input->name = "data";
    network.blobs_by_name.emplace("data", network.input.get());
  }

  Blob& blob(const std::string& name) {
    const auto known = network.blobs_by_name.find(name);
    return known == network.blobs_by_name.end() ? network.add_blob(square(1, 2), name)
                                                : *known->second;
  }

  ProbeLayer& add(const std::vector<std::string>& from, const std::vector<std::string>& to,
                  bool in_place = false) {
    auto layer = std::make_unique<ProbeLayer>();
    ProbeLayer& added = *layer;
    added.id = std::to_string(network.layers.size());
    added.log = &log;
    added.in_place = in_place;
    for (const auto& name : from) {
      added.inputs.push_back(&blob(name));
      ++added.inputs.back()->consumers;
    }
    for (const auto& name : to) {
      added.outputs.push_back(&blob(name));
      ++added.outputs.back()->producers;
    }
    network.add_layer(std::move(layer));
    return added;
  }

  std::vector<std::string> output_names() {
    network.collect_outputs();
    std::vector<std::string> names;
    for (const Blob* output : network.outputs) names.push_back(output->name);
    return names;
  }

  void set_up() { setup_cpu(network, 0); }

  std::vector<std::string> log;  // outlives the layers, which write to it last
  Network network;
};

using Names = std::vector<std::string>;

TEST(NetworkFields, ANewNetworkIsEmpty) {
  const Network network;
  EXPECT_EQ(network.input, nullptr);
  EXPECT_EQ(network.mean, nullptr);
  EXPECT_EQ(network.input_width, 0U);
  EXPECT_EQ(network.layout, kInterleaved);
  EXPECT_FALSE(network.preprocess);
  EXPECT_TRUE(network.layers.empty());
  EXPECT_TRUE(network.labels.empty());
}

TEST(NetworkFields, LabelsAreCopiesInOrder) {
  Network network;
  std::string text = "cat";
  network.add_label(text);
  text = "dog";
  network.add_label(text);
  network.add_label("");
  ASSERT_EQ(network.labels.size(), 3U);
  EXPECT_STREQ(network.labels[0], "cat");
  EXPECT_STREQ(network.labels[1], "dog");
  EXPECT_STREQ(network.labels[2], "");
}

TEST(NetworkFields, ANewInputOrMeanReplacesTheEarlierOne) {
  Network network;
  for (const float value : {1.0F, 2.0F}) {
    network.set_input(make_blob({1, 1, 1, 1}, {value}));
    network.set_mean(make_blob({1, 1, 1, 1}, {value + 10}));
  }
  EXPECT_EQ(network.input->data[0], 2.0F);
  EXPECT_EQ(network.mean->data[0], 12.0F);
}

TEST(NetworkFields, ANewBlobTakesOverItsName) {
  Graph graph;
  Blob& crop = graph.network.add_blob(square(1, 1), "data");
  EXPECT_EQ(graph.network.blobs_by_name.at("data"), &crop);
  EXPECT_EQ(graph.network.blobs_by_name.size(), 1U);
}

TEST(NetworkOutputs, AreTheOutputsThatNoLayerReadsInLayerOrder) {
  Graph graph;
  graph.add({"data"}, {"a", "b"});
  graph.add({"a"}, {"c"});
  graph.add({"data"}, {"d"});
  EXPECT_EQ(graph.output_names(), (Names{"b", "c", "d"}));
}

TEST(NetworkOutputs, GetZeroedStorageWhenTheyAreCollected) {
  Graph graph;
  graph.add({"data"}, {"a"});
  graph.add({"a"}, {"b"});
  graph.network.collect_outputs();
  EXPECT_EQ(values_of(graph.blob("b")), std::vector<float>(4, 0.0F));
  EXPECT_EQ(graph.blob("a").data, nullptr);
}

TEST(NetworkOutputs, AnInPlaceChainIsListedOncePerLayerThatWritesIt) {
  Graph graph;
  graph.add({"data"}, {"a"});
  graph.add({"a"}, {"a"});
  graph.add({"a"}, {"a"});
  EXPECT_EQ(graph.blob("a").producers, 3U);
  EXPECT_EQ(graph.output_names(), (Names{"a", "a", "a"}));
}

TEST(NetworkOutputs, AnInPlaceLayerDoesNotHideTheBlobFromALaterReader) {
  Graph graph;
  graph.add({"data"}, {"a"});
  graph.add({"a"}, {"a"});
  graph.add({"a"}, {"b"});
  EXPECT_EQ(graph.output_names(), (Names{"b"}));
}

TEST(NetworkOutputs, ALayerThatReadsABlobTwiceAndWritesItDoesNotConsumeIt) {
  Graph graph;
  graph.add({"data"}, {"a"});
  graph.add({"a", "a"}, {"a"});
  EXPECT_EQ(graph.output_names(), (Names{"a", "a"}));
}

TEST(NetworkOutputs, TheInputIsOneWhenALayerWritesItInPlace) {
  Graph graph;
  graph.add({"data"}, {"data"});
  EXPECT_EQ(graph.output_names(), (Names{"data"}));
  EXPECT_EQ(values_of(*graph.network.input), (std::vector<float>{1, 2, 3, 4}));
}

TEST(NetworkOutputs, ANetworkOfLayersWithoutOutputsHasNone) {
  Graph graph;
  graph.add({"data"}, {});
  EXPECT_TRUE(graph.output_names().empty());
}

TEST(NetworkBorrowing, AChainOfInPlaceLayersSharesOneBlock) {
  Graph graph;
  graph.add({"data"}, {"a"});
  graph.add({"a"}, {"b"}, /*in_place=*/true);
  graph.add({"b"}, {"c"}, /*in_place=*/true);
  graph.network.collect_outputs();
  graph.set_up();
  EXPECT_NE(graph.blob("a").data, nullptr);
  EXPECT_EQ(graph.blob("b").data, graph.blob("a").data);
  EXPECT_EQ(graph.blob("c").data, graph.blob("a").data);
  EXPECT_NE(graph.blob("a").data, graph.network.input->data);
}

TEST(NetworkBorrowing, AChainWhoseFirstLinkIsTheLastLayerIsResolvedAfterTheSetUp) {
  Graph graph;
  graph.add({"data"}, {"a"});
  graph.add({"b"}, {"c"}, /*in_place=*/true);
  graph.add({"a"}, {"b"}, /*in_place=*/true);
  graph.set_up();
  EXPECT_EQ(graph.blob("c").data, graph.blob("a").data);
}

TEST(NetworkBorrowing, ThereAndBackKeepsTheStorage) {
  Graph graph;
  graph.add({"data"}, {"a"});
  graph.add({"a"}, {"b"}, /*in_place=*/true);
  graph.add({"b"}, {"a"}, /*in_place=*/true);
  graph.set_up();
  graph.set_up();
  EXPECT_NE(graph.blob("a").data, nullptr);
  EXPECT_EQ(graph.blob("b").data, graph.blob("a").data);
  graph.network.change_input_shape(square(3, 2));
  EXPECT_EQ(graph.blob("a").count, 12U);
  EXPECT_EQ(values_of(graph.blob("b")), std::vector<float>(12, 0.0F));
  EXPECT_EQ(graph.blob("b").data, graph.blob("a").data);
}

TEST(NetworkBorrowing, TheInputItselfMayBorrow) {
  Graph graph;
  graph.add({"data"}, {"a"});
  graph.add({"a"}, {"data"}, /*in_place=*/true);
  graph.set_up();
  EXPECT_EQ(graph.network.input->data, graph.blob("a").data);
  graph.network.change_input_shape(square(2, 2));
  EXPECT_EQ(graph.network.input->data, graph.blob("a").data);
  EXPECT_EQ(values_of(*graph.network.input), std::vector<float>(8, 0.0F));
  graph.network.change_input_shape(square(2, 2));
  EXPECT_EQ(graph.network.input->data, graph.blob("a").data);
}

TEST(NetworkBorrowing, BorrowersFollowTheLenderThroughAShapeChange) {
  Graph graph;
  graph.add({"data"}, {"a"});
  graph.add({"a"}, {"b"}, /*in_place=*/true);
  graph.set_up();
  for (const std::uint32_t batch : {5U, 2U, 1U}) {
    graph.network.change_input_shape(square(batch, 2));
    EXPECT_EQ(graph.blob("b").count, 4 * batch);
    EXPECT_EQ(graph.blob("b").data, graph.blob("a").data);
    EXPECT_EQ(values_of(graph.blob("b")), std::vector<float>(std::size_t{4} * batch, 0.0F));
  }
}

TEST(NetworkBorrowing, ABorrowerWhoseLenderBecameTooSmallShowsNoData) {
  struct StubbornLayer : ProbeLayer {
    void Reshape() override {}
  };
  Graph graph;
  graph.add({"data"}, {"a"});
  auto stubborn = std::make_unique<StubbornLayer>();
  stubborn->in_place = true;
  stubborn->inputs = {&graph.blob("a")};
  stubborn->outputs = {&graph.blob("b")};
  graph.network.add_layer(std::move(stubborn));
  graph.set_up();
  EXPECT_NE(graph.blob("b").data, nullptr);
  graph.network.change_input_shape(square(1, 1));
  EXPECT_EQ(graph.blob("b").count, 4U);
  EXPECT_EQ(graph.blob("b").data, nullptr);
  graph.network.change_input_shape(square(1, 2));
  EXPECT_EQ(graph.blob("b").data, graph.blob("a").data);
}

TEST(NetworkBorrowing, ASetUpThatRunsOutOfMemoryLeavesNoPointerToReleasedStorage) {
  Graph graph;
  graph.add({"data"}, {"a"});
  graph.add({"a"}, {"b"}, /*in_place=*/true);
  graph.add({"c"}, {"a"}, /*in_place=*/true);  // gives back the storage that "b" shows
  graph.add({"data"}, {"d"}).out_of_memory = true;
  EXPECT_THROW(graph.set_up(), std::bad_alloc);
  EXPECT_EQ(values_of(graph.blob("b")), std::vector<float>(4, 0.0F));
  graph.network.bind_borrowers();
  EXPECT_EQ(graph.blob("b").data, graph.blob("c").data);
}

TEST(NetworkBorrowing, LongChainsAreSetUpQuicklyInEitherDirection) {
  for (const bool forwards : {true, false}) {
    Graph graph;
    constexpr int kLinks = 50000;
    for (int i = 0; i < kLinks; ++i) {
      const int at = forwards ? i : kLinks - 1 - i;
      graph.add({"b" + std::to_string(at)}, {"b" + std::to_string(at + 1)}, /*in_place=*/true);
    }
    graph.set_up();
    graph.set_up();
    EXPECT_NE(graph.blob("b0").data, nullptr);
    EXPECT_EQ(graph.blob("b" + std::to_string(kLinks)).data, graph.blob("b0").data);
  }
}

TEST(NetworkShapeChange, ReshapesEveryLayerOnceInOrder) {
  Graph graph;
  graph.add({"data"}, {"a"});
  graph.add({"a"}, {"b"});
  graph.set_up();
  graph.log.clear();
  graph.network.change_input_shape(square(2, 3));
  EXPECT_EQ(graph.log, (Names{"reshape 0", "reshape 1"}));
  EXPECT_EQ(graph.network.input->dims, (Dims{2, 3, 3, 1}));
  EXPECT_EQ(values_of(graph.blob("b")), std::vector<float>(18, 0.0F));
}

TEST(NetworkShapeChange, MayComeBeforeTheFirstSetUp) {
  Graph graph;
  graph.add({"data"}, {"a"});
  graph.add({"a"}, {"b"}, /*in_place=*/true);
  graph.network.collect_outputs();
  graph.network.change_input_shape(square(2, 3));
  graph.set_up();
  EXPECT_EQ(graph.blob("b").count, 18U);
  EXPECT_EQ(graph.blob("b").data, graph.blob("a").data);
}

TEST(NetworkShapeChange, ThatRunsOutOfMemoryLeavesShapesContentsAndPointersAsTheyWere) {
  Graph graph;
  graph.add({"data"}, {"a"});
  graph.add({"a"}, {"b"}, /*in_place=*/true);
  graph.add({"b"}, {"c"}).out_of_memory = true;
  Network& network = graph.network;
  network.params.push_back(make_blob({1, 1, 1, 1}, {42}));
  for (const auto& layer : network.layers) layer->AllocateBlobs(layer->inputs[0]->name == "a");
  for (std::size_t i = 0; i < 4; ++i) graph.blob("a").data[i] = static_cast<float>(i + 10);

  std::vector<std::pair<Blob*, Blob>> before;
  for (const char* name : {"data", "a", "b", "c"}) {
    before.emplace_back(&graph.blob(name), graph.blob(name));
  }
  before.emplace_back(network.params[0].get(), *network.params[0]);
  EXPECT_THROW(network.change_input_shape(square(3, 5)), std::bad_alloc);
  for (const auto& [blob, old] : before) {
    EXPECT_EQ(blob->dims, old.dims) << old.name;
    EXPECT_EQ(blob->count, old.count) << old.name;
    EXPECT_EQ(blob->layout, old.layout) << old.name;
    EXPECT_EQ(blob->data, old.data) << old.name;
    EXPECT_EQ(blob->lender, old.lender) << old.name;
  }
  EXPECT_EQ(values_of(*network.input), (std::vector<float>{1, 2, 3, 4}));
  EXPECT_EQ(values_of(graph.blob("b")), (std::vector<float>{10, 11, 12, 13}));
  EXPECT_EQ(network.params[0]->data[0], 42);
}

// A change that is refused half way may have asked for far more than the machine could give.
TEST(NetworkShapeChange, GivesNoStorageBeforeEveryLayerHasFollowed) {
  struct LookingLayer : ProbeLayer {
    bool saw_storage = false;
    void Reshape() override {
      reshape_like_input();
      saw_storage = inputs[0]->data != nullptr || outputs[0]->data != nullptr;
    }
  };
  Graph graph;
  auto owner = std::make_unique<LookingLayer>();
  LookingLayer& looking = *owner;
  looking.inputs = {graph.network.input.get()};
  looking.outputs = {&graph.blob("a")};
  graph.network.add_layer(std::move(owner));
  graph.set_up();
  graph.network.change_input_shape(square(1, 3));
  EXPECT_FALSE(looking.saw_storage);
  EXPECT_EQ(values_of(*graph.network.input), std::vector<float>(9, 0.0F));
  EXPECT_EQ(values_of(graph.blob("a")), std::vector<float>(9, 0.0F));
  reshape(graph.blob("a"), square(1, 1));
  EXPECT_EQ(values_of(graph.blob("a")), std::vector<float>(1, 0.0F)) << "at once, as ever";
}

TEST(NetworkShapeChange, BeyondTheMachinesMemoryChangesNothing) {
  struct ClaimingLayer : BaseLayer {
    void Reshape() override { static_cast<Shape&>(*outputs[0]) = square(1, 46340); }
  };
  Graph graph;
  const std::uint64_t claim = std::uint64_t{46340} * 46340 * sizeof(float);
  for (std::uint64_t i = 0; i <= machine_memory() / claim; ++i) {
    auto layer = std::make_unique<ClaimingLayer>();
    layer->inputs = {graph.network.input.get()};
    layer->outputs = {&graph.blob("b" + std::to_string(i))};
    graph.network.add_layer(std::move(layer));
  }
  EXPECT_THROW(graph.network.change_input_shape(square(1, 3)), std::bad_alloc);
  EXPECT_EQ(graph.blob("b0").dims, (Dims{1, 2, 2, 1}));
  EXPECT_EQ(values_of(*graph.network.input), (std::vector<float>{1, 2, 3, 4}));
}

TEST(NetworkShapeChange, ALayerThatGrowsItsOwnInputIsLimitedToo) {
  struct GrowingLayer : BaseLayer {
    void Reshape() override { reshape(*outputs[0], square(1, 50)); }
  };
  Graph graph;
  graph.network.memory_limit = 100 * sizeof(float);
  auto layer = std::make_unique<GrowingLayer>();
  layer->inputs = layer->outputs = {&graph.blob("a")};
  graph.network.add_layer(std::move(layer));
  EXPECT_THROW(graph.network.change_input_shape(square(1, 3)), std::bad_alloc);
  EXPECT_EQ(graph.blob("a").dims, (Dims{1, 2, 2, 1}));
}

TEST(NetworkStorage, CountsEveryBlobOnceAndNoBorrower) {
  Graph graph;
  graph.add({"data"}, {"a"});
  graph.add({"a"}, {"b"}, /*in_place=*/true);
  graph.network.set_mean(make_blob({1, 1, 1, 5}));
  graph.network.params.push_back(make_blob({1, 1, 1, 6}));
  EXPECT_EQ(graph.network.storage_bytes(), (4U + 4 + 4 + 5 + 6) * 4);
  graph.set_up();
  EXPECT_EQ(graph.network.storage_bytes(), (4U + 4 + 5 + 6) * 4);
}

TEST(NetworkStorage, TheMachineHasSomeMemory) {
  EXPECT_GT(machine_memory(), std::uint64_t{1} << 24);
}

TEST(NetworkRelease, ReleasesWeightsOfParametersThenOfLayersInOrder) {
  Graph graph;
  graph.add({"data"}, {"a"});
  graph.add({"a"}, {"b"});
  graph.network.params.push_back(make_blob({1, 1, 1, 1}));
  graph.network.release_weights();
  EXPECT_TRUE(graph.network.params.empty());
  EXPECT_EQ(graph.log, (Names{"release weights 0", "release weights 1"}));
}

TEST(NetworkRelease, DestroysLayersFromTheLastToTheFirst) {
  Graph graph;
  for (const char* name : {"a", "b", "c"}) graph.add({"data"}, {name});
  graph.log.clear();
  graph.network.release();
  EXPECT_EQ(graph.log, (Names{"destroy 2", "destroy 1", "destroy 0"}));
}

TEST(NetworkRelease, LeavesAnEmptyNetworkAndMayBeCalledTwice) {
  Graph graph;
  graph.add({"data"}, {"a"});
  graph.network.add_label("cat");
  graph.network.aliases["a"] = "b";
  graph.network.set_mean(make_blob({1, 1, 1, 1}));
  graph.network.collect_outputs();
  for (int i = 0; i < 2; ++i) {
    graph.network.release();
    EXPECT_EQ(graph.network.input, nullptr);
    EXPECT_EQ(graph.network.mean, nullptr);
    EXPECT_TRUE(graph.network.layers.empty());
    EXPECT_TRUE(graph.network.labels.empty());
    EXPECT_TRUE(graph.network.outputs.empty());
    EXPECT_TRUE(graph.network.aliases.empty());
    EXPECT_TRUE(graph.network.blobs_by_name.empty());
    EXPECT_TRUE(graph.network.graph_blobs.empty());
  }
}

// Every path releases each block once: the sanitizers look on.
TEST(NetworkRelease, IsCleanAfterEveryOrderOfCalls) {
  const std::vector<std::pair<char, void (*)(Graph&)>> steps{
      {'s', [](Graph& g) { setup_cpu(g.network, 0); }},
      {'q', [](Graph& g) { setup_cpu(g.network, 3); }},
      {'w', [](Graph& g) { g.network.release_weights(); }},
      {'r',
       [](Graph& g) { g.network.change_input_shape(square(g.network.input->dims[0] + 1, 2)); }},
      {'f', [](Graph& g) { forward_cpu(g.network, 0); }},
  };
  for (std::size_t order = 0; order < 5 * 5 * 5 * 5; ++order) {
    Graph graph;
    graph.add({"data"}, {"a"});
    graph.add({"a"}, {"b"}, /*in_place=*/true);
    graph.add({"b"}, {"b"}, /*in_place=*/true);
    graph.add({"b"}, {"c"}, /*in_place=*/true);
    graph.add({"c"}, {"a"}, /*in_place=*/true);
    graph.add({"data", "late"}, {"d"});
    graph.network.collect_outputs();
    for (std::size_t i = 0, rest = order; i < 4; ++i, rest /= 5) steps[rest % 5].second(graph);
    EXPECT_EQ(graph.network.outputs.size(), 1U);
  }
}

}  // namespace
}  // namespace ravu::test
