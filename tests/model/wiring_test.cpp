// Wiring by name: exact names, prefixes, warnings, new and shared outputs.
#include "model/wiring.h"

#include <gtest/gtest.h>

#include <random>

#include "support/blobs.h"
#include "support/captured.h"

namespace ravu::test {
namespace {

// A network with Blobs of these names, and a layer to wire.
struct Wires {
  explicit Wires(const std::vector<std::string>& names) {
    state.network = &network;
    for (const auto& name : names) network.add_blob(Shape{}, name);
  }

  void read_inputs(const Bytes& names) {
    const Bytes bytes = Dictionary().add("input_layers", names);
    wire_inputs({root_tag(bytes.data(), bytes.size()), &state}, "ReLU", layer);
  }
  void read_outputs(const Bytes& names, const std::optional<Shape>& shape) {
    const Bytes bytes = Dictionary().add("output_layers", names);
    wire_outputs({root_tag(bytes.data(), bytes.size()), &state}, shape, layer);
  }
  std::vector<std::string> inputs() const {
    std::vector<std::string> names;
    for (const Blob* input : layer.inputs) names.push_back(input->name);
    return names;
  }
  Blob& blob(const std::string& name) { return *network.blobs_by_name.at(name); }

  Network network;
  LoadState state;
  BaseLayer layer;
};

using Names = std::vector<std::string>;

std::string warning(const std::string& name) {
  return "[WARNING]\tReLU still not hit " + name + ". TODO need to do something\n";
}

TEST(WireInputs, LinksKnownBlobsInOrderAndCountsTheReader) {
  Wires wires({"a", "b"});
  EXPECT_EQ(captured_stdout([&] { wires.read_inputs(texts({"b", "a", "b"})); }), "");
  EXPECT_EQ(wires.inputs(), (Names{"b", "a", "b"}));
  EXPECT_EQ(wires.blob("a").consumers, 1U);
  EXPECT_EQ(wires.blob("b").consumers, 2U);
}

TEST(WireInputs, ANameThatContinuesAKnownOneLinksToItWithoutAWarning) {
  Wires wires({"conv1"});
  EXPECT_EQ(captured_stdout([&] { wires.read_inputs(texts({"conv1_x"})); }), "");
  EXPECT_EQ(wires.inputs(), Names{"conv1"});
}

TEST(WireInputs, TheLongestPrefixWins) {
  Wires wires({"c", "conv", "conv1", "conv10", "conv1_y", "conv2"});
  wires.read_inputs(texts({"conv1_x", "conv100", "convolution", "cat", "conv1"}));
  EXPECT_EQ(wires.inputs(), (Names{"conv1", "conv10", "conv", "c", "conv1"}));
}

TEST(WireInputs, ABlobWithoutANameIsAPrefixOfEverything) {
  Wires wires({"", "b"});
  EXPECT_EQ(captured_stdout([&] { wires.read_inputs(texts({"a", "", "bc"})); }), "");
  EXPECT_EQ(wires.inputs(), (Names{"", "", "b"}));
}

TEST(WireInputs, ANameWithoutAnyPrefixIsWarnedAboutAndSkipped) {
  Wires wires({"conv1"});
  EXPECT_EQ(captured_stdout([&] {
              wires.read_inputs(texts({"conv", "conv1", "x"}));
            }),
            warning("conv") + warning("x"));
  EXPECT_EQ(wires.inputs(), Names{"conv1"});
  EXPECT_FALSE(wires.state.failed);
}

TEST(WireInputs, AnAbsentOrEmptyListLinksNothing) {
  Wires wires({"a"});
  wires.read_inputs(list({}));
  const Bytes nothing = Dictionary().bytes();
  wire_inputs({root_tag(nothing.data(), nothing.size()), &wires.state}, "ReLU", wires.layer);
  EXPECT_TRUE(wires.layer.inputs.empty());
  EXPECT_FALSE(wires.state.failed);
}

TEST(WireInputs, ADamagedListLinksWhatComesBeforeTheDamage) {
  Wires wires({"a", "b"});
  Bytes names = texts({"a", "b"});
  names[8 + 12 + 4] = 200;  // the second name's length
  EXPECT_EQ(captured_stderr([&] { wires.read_inputs(names); }), kNotEnoughBytes);
  EXPECT_EQ(wires.inputs(), Names{"a"});
}

TEST(WireInputs, AgreesWithCuttingOneCharacterAtATime) {
  std::mt19937 random(7);
  const auto draw_name = [&] {
    std::string name(std::uniform_int_distribution<std::size_t>(0, 8)(random), 'a');
    for (char& c : name) c = "ab\xFF"[random() % 3];
    return name;
  };
  for (int round = 0; round < 300; ++round) {
    Names known;
    for (int i = 0; i < round % 12; ++i) known.push_back(draw_name());
    Wires wires(known);
    Names expected;
    Names wanted;
    for (int i = 0; i < 10; ++i) {
      wanted.push_back(draw_name());
      for (std::string cut = wanted.back();; cut.pop_back()) {
        if (wires.network.blobs_by_name.count(cut) != 0) expected.push_back(cut);
        if (cut.empty() || wires.network.blobs_by_name.count(cut) != 0) break;
      }
    }
    captured_stdout([&] { wires.read_inputs(texts(wanted)); });
    EXPECT_EQ(wires.inputs(), expected) << "round " << round;
  }
}

TEST(WireInputs, ANameOfAMegabyteIsResolvedWithoutTryingEveryLength) {
  const std::string name(1 << 20, 'x');
  Wires wires({"a", name.substr(0, name.size() / 2), "y"});
  wires.read_inputs(texts(Names(20, name)));
  EXPECT_EQ(wires.layer.inputs.size(), 20U);
  Wires stranger({"a", "y"});
  EXPECT_EQ(captured_stdout([&] { stranger.read_inputs(texts({name})); }), warning(name));
}

TEST(WireOutputs, ANewNameMakesABlobOfTheShapeWithoutStorage) {
  Wires wires({});
  wires.read_outputs(texts({"a", "b"}), *make_shape(1, 2, 3, 4, kPlanar));
  ASSERT_EQ(wires.layer.outputs.size(), 2U);
  for (const char* name : {"a", "b"}) {
    const Blob& blob = wires.blob(name);
    EXPECT_EQ(blob.name, name);
    EXPECT_EQ(blob.dims, (Dims{1, 2, 3, 4}));
    EXPECT_EQ(blob.count, 24U);
    EXPECT_EQ(blob.layout, kPlanar);
    EXPECT_EQ(blob.producers, 1U);
    EXPECT_EQ(blob.consumers, 0U);
    EXPECT_EQ(blob.data, nullptr);
  }
}

TEST(WireOutputs, AKnownNameIsSharedAndKeepsItsShape) {
  Wires wires({"a"});
  const Blob* before = &wires.blob("a");
  wires.read_outputs(texts({"a"}), *make_shape(1, 2, 3, 4, kInterleaved));
  wires.read_outputs(texts({"a"}), *make_shape(1, 2, 3, 4, kInterleaved));
  EXPECT_EQ(&wires.blob("a"), before);
  EXPECT_EQ(before->dims, (Dims{1, 1, 1, 1}));
  EXPECT_EQ(before->producers, 2U);
  EXPECT_EQ(wires.layer.outputs, (std::vector<Blob*>(2, &wires.blob("a"))));
}

TEST(WireOutputs, NamesAreNotCut) {
  Wires wires({"conv1"});
  wires.read_outputs(texts({"conv1_x"}), Shape{});
  EXPECT_EQ(wires.network.blobs_by_name.size(), 2U);
}

TEST(WireOutputs, ANameListedTwiceIsOneBlobWithTwoProducers) {
  Wires wires({});
  wires.read_outputs(texts({"a", "a"}), Shape{});
  EXPECT_EQ(wires.layer.outputs.size(), 2U);
  EXPECT_EQ(wires.blob("a").producers, 2U);
}

TEST(WireOutputs, AnImpossibleShapeFailsTheLoadWhenANewBlobWouldGetIt) {
  Wires wires({"a"});
  wires.read_outputs(texts({"a"}), std::nullopt);
  EXPECT_FALSE(wires.state.failed);
  wires.read_outputs(list({}), std::nullopt);
  EXPECT_FALSE(wires.state.failed);
  wires.read_outputs(texts({"b"}), std::nullopt);
  EXPECT_EQ(wires.state.reason, "the output would have a negative size or 2^31 elements and more");
}

}  // namespace
}  // namespace ravu::test
