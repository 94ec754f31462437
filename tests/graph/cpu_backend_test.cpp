// The driver of the processor modes: set-up, mean subtraction, order of layers.
#include "graph/cpu_backend.h"

#include <gtest/gtest.h>

#include <new>
#include <utility>

#include "support/blobs.h"

namespace ravu::test {
namespace {

struct RecordingLayer : BaseLayer {
  std::vector<int>* calls = nullptr;
  int id = 0;
  bool succeeds = true;

  bool Forward(std::uint32_t mode) override {
    calls->push_back(id + static_cast<int>(mode));
    return succeeds;
  }
  bool Setup(std::int32_t mode, std::vector<BlobPtr>& params) override {
    calls->push_back(id + mode);
    params.push_back(make_blob({1, 1, 1, 1}));
    return succeeds;
  }
};

struct Rig {
  Rig(Dims dims, const std::vector<float>& values) { network.set_input(make_blob(dims, values)); }
  void add_layer(int id, bool succeeds) {
    auto layer = std::make_unique<RecordingLayer>();
    layer->calls = &calls;
    layer->id = id;
    layer->succeeds = succeeds;
    network.add_layer(std::move(layer));
  }
  std::vector<int> calls;
  Network network;
};

TEST(CpuSetup, CallsEveryLayerInOrderWithTheModeAndIgnoresResults) {
  Rig rig({1, 1, 1, 1}, {0});
  rig.add_layer(10, false);
  rig.add_layer(20, true);
  EXPECT_TRUE(setup_cpu(rig.network, 3));
  EXPECT_EQ(rig.calls, (std::vector<int>{13, 23}));
  EXPECT_EQ(rig.network.params.size(), 2U) << "layers place Blobs into the network's own list";
}

TEST(CpuSetup, RefusesScratchBeyondTheMemoryLimit) {
  for (const std::uint64_t spare : {0U, 1U}) {
    Rig rig({1, 1, 1, 1}, {0});
    rig.add_layer(10, true);
    rig.add_layer(20, true);
    rig.network.memory_limit = 3 * sizeof(float) - spare;
    if (spare == 0) {
      EXPECT_TRUE(setup_cpu(rig.network, 0));
    } else {
      EXPECT_THROW(setup_cpu(rig.network, 0), std::bad_alloc);
    }
  }
}

TEST(CpuSetup, ClearsTheNetworksLayoutAndLeavesTheInputs) {
  Rig rig({1, 1, 2, 2}, {1, 2, 3, 4});
  rig.network.layout = kPlanar;
  rig.network.input->layout = kPlanar;
  setup_cpu(rig.network, 0);
  EXPECT_EQ(rig.network.layout, kInterleaved);
  EXPECT_EQ(rig.network.input->layout, kPlanar);
  EXPECT_EQ(values_of(*rig.network.input), (std::vector<float>{1, 2, 3, 4}));
}

TEST(CpuSetup, TurnsAPlanarMeanOnceWhateverPreprocessSays) {
  Rig rig({1, 2, 2, 2}, {0, 0, 0, 0, 0, 0, 0, 0});
  rig.network.input_width = rig.network.input_height = 2;
  rig.network.input_channels = 2;
  rig.network.set_mean(make_blob({1, 2, 2, 2}, {0, 1, 2, 3, 4, 5, 6, 7}));
  rig.network.mean->layout = kPlanar;
  for (int i = 0; i < 2; ++i) {
    setup_cpu(rig.network, 0);
    EXPECT_EQ(values_of(*rig.network.mean), (std::vector<float>{0, 4, 1, 5, 2, 6, 3, 7}));
    EXPECT_EQ(rig.network.mean->layout, kInterleaved);
  }
}

TEST(CpuSetup, AMeanThatDoesNotFitTheModelsSizesIsTurnedAsFarAsItGoes) {
  Rig rig({1, 1, 1, 1}, {0});
  rig.network.input_width = rig.network.input_height = 1000;
  rig.network.input_channels = 1000;
  rig.network.set_mean(make_blob({1, 1, 2, 2}, {0, 1, 2, 3}));
  rig.network.mean->layout = kPlanar;
  setup_cpu(rig.network, 0);
  EXPECT_EQ(values_of(*rig.network.mean), (std::vector<float>{0, 1, 2, 3}));
}

TEST(CpuForward, CallsEveryLayerInOrderWithTheModeAndIgnoresResults) {
  Rig rig({1, 1, 1, 1}, {0});
  rig.add_layer(10, false);
  rig.add_layer(20, true);
  forward_cpu(rig.network, 0);
  forward_cpu(rig.network, 3);
  EXPECT_EQ(rig.calls, (std::vector<int>{10, 20, 13, 23}));
}

TEST(CpuForward, SubtractsTheMeanFromEveryBatchItem) {
  Rig rig({2, 1, 1, 2}, {10, 20, 30, 40});
  rig.network.set_mean(make_blob({1, 1, 1, 2}, {1, 2}));
  rig.network.preprocess = true;
  forward_cpu(rig.network, 0);
  EXPECT_EQ(values_of(*rig.network.input), (std::vector<float>{9, 18, 29, 38}));
}

TEST(CpuForward, WithoutNewInputASecondPassSubtractsTheMeanAgain) {
  Rig rig({1, 1, 1, 1}, {10});
  rig.network.set_mean(make_blob({1, 1, 1, 1}, {1}));
  rig.network.preprocess = true;
  forward_cpu(rig.network, 0);
  forward_cpu(rig.network, 3);
  EXPECT_EQ(rig.network.input->data[0], 8);
}

TEST(CpuForward, WithoutPreprocessTheMeanIsNeverSubtracted) {
  Rig rig({1, 1, 1, 1}, {10});
  rig.network.set_mean(make_blob({1, 1, 1, 1}, {1}));
  rig.network.preprocess = false;
  forward_cpu(rig.network, 0);
  EXPECT_EQ(rig.network.input->data[0], 10);
}

TEST(CpuForward, AMeanThatDoesNotDivideTheInputEndsWithIt) {
  Rig rig({1, 1, 1, 5}, {10, 10, 10, 10, 10});
  rig.network.set_mean(make_blob({1, 1, 1, 3}, {1, 2, 3}));
  rig.network.preprocess = true;
  forward_cpu(rig.network, 0);
  EXPECT_EQ(values_of(*rig.network.input), (std::vector<float>{9, 8, 7, 9, 8}));
}

TEST(CpuForward, AMeanLongerThanTheInputEndsWithItToo) {
  Rig rig({1, 1, 1, 2}, {10, 10});
  rig.network.set_mean(make_blob({1, 1, 1, 3}, {1, 2, 3}));
  rig.network.preprocess = true;
  forward_cpu(rig.network, 0);
  EXPECT_EQ(values_of(*rig.network.input), (std::vector<float>{9, 8}));
}

TEST(CpuForward, AMeanOrInputWithoutValuesIsPassedOver) {
  Rig rig({1, 1, 1, 0}, {});
  rig.network.set_mean(make_blob({1, 1, 1, 0}));
  rig.network.preprocess = true;
  forward_cpu(rig.network, 0);
  rig.network.set_mean(make_blob({1, 1, 1, 1}, {1}));
  forward_cpu(rig.network, 0);
  EXPECT_EQ(rig.network.input->data, nullptr);
}

}  // namespace
}  // namespace ravu::test
