// The raw feeds: pixels straight into the input, after a shape change where they ask for one.
#include <gtest/gtest.h>

#include <cstdint>
#include <functional>
#include <limits>
#include <new>
#include <string>
#include <utility>

#include "support/handles.h"

namespace ravu::test {
namespace {

using Values = std::vector<float>;

// Notes when it is reshaped, and what the input holds at that moment.
class SpyLayer : public BaseLayer {
 public:
  explicit SpyLayer(std::function<void()> on_reshape) : on_reshape_(std::move(on_reshape)) {}
  void Reshape() override { on_reshape_(); }

 private:
  std::function<void()> on_reshape_;
};

// A network of 2 x 2 images whose two layers only note that they are reshaped.
struct SpiedNetwork {
  SpiedNetwork() {
    network.set_input(make_blob({1, 2, 2, 1}, {1, 2, 3, 4}));
    for (const int index : {0, 1}) {
      network.add_layer(std::make_unique<SpyLayer>([this, index] {
        reshaped.push_back(index);
        seen.push_back(network.input->dims);
        filled = filled || network.input->data != nullptr;
      }));
    }
  }
  ravu_network* handle() { return to_handle(&network); }

  Network network;
  std::vector<int> reshaped;
  std::vector<Dims> seen;  // the input's, while each layer was reshaped
  bool filled = false;     // whether it held values then
};

// The three raw feeds, each giving `count` pixels of value 7.
using Feed = std::function<void(ravu_network*, const Dims&)>;
std::vector<Feed> raw_feeds() {
  static const Values floats(64, 7.0F);
  static const Bytes bytes(64, 7);
  return {[](ravu_network* n, const Dims& d) {
            ravu_set_InputData_byRawData_float(n, floats.data(), d[0], d[1], d[2], d[3]);
          },
          [](ravu_network* n, const Dims& d) {
            ravu_set_InputData_byRawData_byte(n, bytes.data(), d[0], d[1], d[2], d[3]);
          },
          [](ravu_network* n, const Dims& d) {
            ravu_set_InputData_byRawData_test(n, bytes.data(), d[0], d[1], d[2], d[3]);
          }};
}

TEST(RawInput, FloatsAreCopiedAsTheyAre) {
  const Handle handle(input_only(2, 1));
  const Values pixels{-1.5F, 0, 300, 1e-3F};
  ravu_set_InputData_byRawData_float(handle, pixels.data(), 1, 2, 2, 1);
  EXPECT_EQ(input_values(handle), pixels);
}

TEST(RawInput, ElementKIsTheValueOfByteK) {
  const Handle handle(input_only(2, 1));
  Bytes pixels(24);
  Values expected;
  for (std::size_t k = 0; k < pixels.size(); ++k) {
    pixels[k] = static_cast<std::uint8_t>(255 - k);
    expected.push_back(static_cast<float>(255 - k));
  }
  ravu_set_InputData_byRawData_byte(handle, pixels.data(), 2, 2, 3, 2);
  EXPECT_EQ(handle.network().input->dims, (Dims{2, 2, 3, 2}));
  EXPECT_EQ(input_values(handle), expected);
}

TEST(RawInput, SubtractsNoMean) {
  for (const Feed& feed : raw_feeds()) {
    const Handle handle(input_only(2, 1).set("data_mean", tensor({1, 2, 2, 1}, {1, 2, 3, 4})));
    feed(handle, {1, 2, 2, 1});
    EXPECT_EQ(input_values(handle), Values(4, 7.0F));
  }
}

TEST(RawInput, OfTheCurrentShapeTouchesNoLayer) {
  for (const Feed& feed : raw_feeds()) {
    SpiedNetwork spied;
    spied.network.input_height = 2;
    const float* storage = spied.network.input->data;
    feed(spied.handle(), {1, 2, 2, 1});
    EXPECT_TRUE(spied.reshaped.empty());
    EXPECT_EQ(spied.network.input->data, storage);
    EXPECT_EQ(values_of(*spied.network.input), Values(4, 7.0F));
  }
}

TEST(RawInput, OfANewBatchReshapesEveryLayerOnceAndInOrderBeforeTheCopy) {
  for (const Feed& feed : raw_feeds()) {
    SpiedNetwork spied;
    spied.network.input_height = 2;
    feed(spied.handle(), {2, 2, 2, 1});
    EXPECT_EQ(spied.reshaped, (std::vector<int>{0, 1}));
    EXPECT_EQ(spied.seen, (std::vector<Dims>(2, Dims{2, 2, 2, 1})));
    EXPECT_FALSE(spied.filled);
    EXPECT_EQ(spied.network.input->dims, (Dims{2, 2, 2, 1}));
    EXPECT_EQ(values_of(*spied.network.input), Values(8, 7.0F));
  }
}

TEST(RawInput, OfOtherDimsWithTheSameProductReshapes) {
  SpiedNetwork spied;
  raw_feeds()[0](spied.handle(), {1, 4, 1, 1});
  EXPECT_EQ(spied.reshaped, (std::vector<int>{0, 1}));
  EXPECT_EQ(spied.network.input->dims, (Dims{1, 4, 1, 1}));
}

TEST(RawInput, KeepsTheInputsLayout) {
  const Handle handle(input_only(2, 1).set("layout", text("BCHW")));
  raw_feeds()[0](handle, {2, 2, 2, 1});
  EXPECT_EQ(handle.network().input->layout, kPlanar);
}

TEST(RawInput, LetsTheWholeNetworkFollow) {
  const Handle handle(small_classifier());
  ASSERT_TRUE(ravu_setup_runEngine(handle, RAVU_MODE_CPU));
  const Values pixels{1, 2, 3, 4, 0, 0, 1, 0, 9, 8, 7, 6};
  ravu_set_InputData_byRawData_float(handle, pixels.data(), 3, 2, 2, 1);
  ravu_forward(handle, RAVU_MODE_CPU);
  EXPECT_EQ(values_of(ravu_getOutput_blob(handle, 0)), (Values{5, 13, 2, 7, 10, 23}));
  EXPECT_EQ(dims_of(ravu_getOutput_blob(handle, 0)), (Dims{3, 1, 1, 2}));
  EXPECT_EQ(run(handle, {1, 2, 3, 4}), (Values{5, 13}));
}

TEST(RawInput, BeforeSetUpMayChangeTheShapeToo) {
  const Handle handle(small_classifier());
  const Values pixels{1, 2, 3, 4, 0, 0, 1, 0};
  ravu_set_InputData_byRawData_float(handle, pixels.data(), 2, 2, 2, 1);
  ASSERT_TRUE(ravu_setup_runEngine(handle, RAVU_MODE_CPU));
  ravu_forward(handle, RAVU_MODE_CPU);
  EXPECT_EQ(values_of(ravu_getOutput_blob(handle, 0)), (Values{5, 13, 2, 7}));
}

TEST(RawInput, AZeroDimChangesNothing) {
  for (const Feed& feed : raw_feeds()) {
    for (std::size_t zero = 0; zero < 4; ++zero) {
      SpiedNetwork spied;
      Dims dims{2, 2, 2, 2};
      dims[zero] = 0;
      feed(spied.handle(), dims);
      EXPECT_TRUE(spied.reshaped.empty());
      EXPECT_EQ(spied.network.input->dims, (Dims{1, 2, 2, 1}));
      EXPECT_EQ(values_of(*spied.network.input), (Values{1, 2, 3, 4}));
    }
  }
}

TEST(RawInput, DimsThatNoTensorCanHoldChangeNothing) {
  constexpr auto kHuge = std::numeric_limits<std::uint32_t>::max();
  for (const Feed& feed : raw_feeds()) {
    for (const Dims dims : {Dims{2, 0x8000, 0x8000, 1}, Dims{1, 0x10000, 0x10000, 1},
                            Dims{0x10000, 0x10000, 0x10000, 0x10000}, Dims{kHuge, 1, 1, 1},
                            Dims{1, 1, 1, kHuge}, Dims{kHuge, kHuge, kHuge, kHuge}}) {
      SpiedNetwork spied;
      feed(spied.handle(), dims);
      EXPECT_TRUE(spied.reshaped.empty());
      EXPECT_EQ(spied.network.input->dims, (Dims{1, 2, 2, 1}));
      EXPECT_EQ(values_of(*spied.network.input), (Values{1, 2, 3, 4}));
    }
  }
}

// The layers ask for more than the machine has, by shapes alone: no test needs that much.
TEST(RawInput, StorageBeyondTheMachineChangesNothing) {
  Network network;
  network.set_input(make_blob({1, 2, 2, 1}, {1, 2, 3, 4}));
  std::vector<Blob*> blobs;
  const std::uint64_t blob_bytes = std::uint64_t{kMaxCount} * sizeof(float);
  for (std::uint64_t sum = 0; sum <= machine_memory(); sum += blob_bytes) {
    Blob& blob = network.add_blob(Shape{}, "blob " + std::to_string(blobs.size()));
    blobs.push_back(&blob);
    auto layer = std::make_unique<SpyLayer>([&blob] { blob.count = kMaxCount; });
    layer->outputs.push_back(&blob);
    network.add_layer(std::move(layer));
  }
  for (const Feed& feed : raw_feeds()) {
    feed(to_handle(&network), {2, 2, 2, 1});
    EXPECT_EQ(network.input->dims, (Dims{1, 2, 2, 1}));
    EXPECT_EQ(values_of(*network.input), (Values{1, 2, 3, 4}));
    for (const Blob* blob : blobs) EXPECT_EQ(blob->count, 1U);
  }
}

TEST(RawInput, ALayerThatFindsNoMemoryLeavesEverythingAsItWas) {
  const Handle handle(small_classifier());
  ASSERT_TRUE(ravu_setup_runEngine(handle, RAVU_MODE_CPU));
  const Values before = run(handle, {1, 2, 3, 4});
  const Network& network = handle.network();
  handle.network().add_layer(std::make_unique<SpyLayer>([] { throw std::bad_alloc(); }));
  for (const Feed& feed : raw_feeds()) {
    feed(handle, {3, 2, 2, 1});
    EXPECT_EQ(network.input->dims, (Dims{1, 2, 2, 1}));
    EXPECT_EQ(values_of(*network.input), (Values{1, 2, 3, 4}));
    EXPECT_EQ(values_of(ravu_getOutput_blob(handle, 0)), before);
    EXPECT_EQ(ravu_hidden_blob(handle, 0).data, network.input->data);
    ravu_forward(handle, RAVU_MODE_CPU);
    EXPECT_EQ(values_of(ravu_getOutput_blob(handle, 0)), before);
  }
}

TEST(RawInput, NullPixelsChangeNothing) {
  SpiedNetwork spied;
  ravu_set_InputData_byRawData_float(spied.handle(), nullptr, 2, 2, 2, 1);
  ravu_set_InputData_byRawData_byte(spied.handle(), nullptr, 2, 2, 2, 1);
  ravu_set_InputData_byRawData_test(spied.handle(), nullptr, 2, 2, 2, 1);
  EXPECT_TRUE(spied.reshaped.empty());
  EXPECT_EQ(values_of(*spied.network.input), (Values{1, 2, 3, 4}));
}

TEST(RawInputTest, GivesEveryBatchItemTheFirstImage) {
  const Handle handle(input_only(2, 1));
  const Bytes first{1, 2, 3, 4};  // there is no second image to read
  ravu_set_InputData_byRawData_test(handle, first.data(), 2, 2, 2, 1);
  EXPECT_EQ(input_values(handle), (Values{1, 2, 3, 4, 1, 2, 3, 4}));
}

TEST(RawInputTest, FillsNoMoreRowsThanTheModelsInputHas) {
  const Handle handle(input_only(2, 1));
  const Bytes image{1, 2, 3, 4, 5, 6, 7, 8};
  ravu_set_InputData_byRawData_test(handle, image.data(), 2, 4, 2, 1);
  EXPECT_EQ(input_values(handle), (Values{1, 2, 3, 4, 0, 0, 0, 0, 1, 2, 3, 4, 0, 0, 0, 0}));
}

TEST(RawInputTest, StaysInsideAnImageWithFewerRowsThanTheModelsInput) {
  const Handle handle(input_only(4, 1));
  const Bytes image{1, 2, 3, 4};
  ravu_set_InputData_byRawData_test(handle, image.data(), 2, 1, 4, 1);
  EXPECT_EQ(input_values(handle), (Values{1, 2, 3, 4, 1, 2, 3, 4}));
}

}  // namespace
}  // namespace ravu::test
