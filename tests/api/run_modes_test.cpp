// Set-up and forward runs through the exported functions: every run mode, the mean, released
// weights.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdint>
#include <cstdlib>
#include <memory>
#include <new>
#include <stdexcept>
#include <string>

#include "graph/fixed_point_library.h"
#include "support/handles.h"

namespace ravu::test {
namespace {

using ::testing::StartsWith;
using ::testing::internal::CaptureStderr;
using ::testing::internal::CaptureStdout;
using ::testing::internal::GetCapturedStderr;
using ::testing::internal::GetCapturedStdout;

// A convolution that multiplies each pixel by `factor`.
Dictionary pointwise(const char* input, const char* output, float factor) {
  return layer("conv", {input}, {output})
      .add("spec", Dictionary().add("num_kernels", 1).add("stride", 1).add("ksize", 1))
      .add("padding", 0)
      .add("has_bias", 0)
      .add("kernels", tensor({1, 1, 1, 1}, {factor}));
}

// As if the fixed-point library were nowhere, whether or not it is.
void hide_fixed_point_library(const Handle& handle) {
  handle.network().workspace.fixed_point = std::make_shared<const FixedPointLibrary>();
}

// A layer that finds no memory.
class ThrowingLayer : public BaseLayer {
 public:
  bool Forward(std::uint32_t) override { throw std::bad_alloc(); }
  bool Setup(std::int32_t, std::vector<BlobPtr>&) override { throw std::bad_alloc(); }
};

TEST(RunMode, CpuComputesTheNetwork) {
  const Handle handle(small_classifier());
  ASSERT_TRUE(ravu_setup_runEngine(handle, RAVU_MODE_CPU));
  EXPECT_EQ(run(handle, {1, -2, 3, -4}), (std::vector<float>{4, 11}));
  EXPECT_EQ(run(handle, {-1, -2, -3, -4}), (std::vector<float>{1, 5}));
}

TEST(RunMode, ReservedSetUpIsFalseAndChangesNothing) {
  ModelBuilder model(2, 1);
  model.set("layout", text("BCHW"));
  model.add_layer(layer("relu", {"data"}, {"rectified"}));
  model.add_layer(layer("max", {"rectified"}, {"scores"}));
  const Handle handle(model);
  EXPECT_FALSE(ravu_setup_runEngine(handle, RAVU_MODE_RESERVED));
  EXPECT_EQ(handle.network().layout, kPlanar);
  EXPECT_EQ(ravu_hidden_blob(handle, 0).data, nullptr);
}

TEST(RunMode, ReservedForwardPrintsItsLineAndComputesNothing) {
  const Handle handle(small_classifier());
  ASSERT_TRUE(ravu_setup_runEngine(handle, RAVU_MODE_CPU));
  const auto before = run(handle, {1, 2, 3, 4});
  CaptureStdout();
  const auto after = run(handle, {5, 6, 7, 8}, RAVU_MODE_RESERVED);
  EXPECT_EQ(GetCapturedStdout(), "src\\graph\\ravuGraph(#593), in run_forward_mkldnn\n");
  EXPECT_EQ(after, before);
}

TEST(RunMode, UnknownModesAreFalseAndDoNothing) {
  const Handle handle(small_classifier());
  ASSERT_TRUE(ravu_setup_runEngine(handle, RAVU_MODE_CPU));
  const auto before = run(handle, {1, 2, 3, 4});
  CaptureStdout();
  CaptureStderr();
  for (const std::uint32_t mode : {5U, 6U, 0x80000000U, 0xFFFFFFFFU}) {
    EXPECT_FALSE(ravu_setup_runEngine(handle, mode));
    EXPECT_EQ(run(handle, {5, 6, 7, 8}, mode), before);
  }
  EXPECT_EQ(GetCapturedStdout(), "");
  EXPECT_EQ(GetCapturedStderr(), "");
}

TEST(RunMode, GpuWithoutADeviceRaisesARuntimeErrorAndLeavesTheNetworkUsable) {
#ifndef _WIN32
  setenv("OCL_ICD_VENDORS", "/nonexistent", /*overwrite=*/1);
#endif
  const Handle handle(small_classifier());
  for (const std::uint32_t mode : {RAVU_MODE_GPU, RAVU_MODE_GPU_KEEP}) {
    try {
      ravu_setup_runEngine(handle, mode);
      ADD_FAILURE() << "mode " << mode << " raised nothing";
    } catch (const std::runtime_error& error) {
      EXPECT_THAT(error.what(), StartsWith("failed to create engine: "));
    }
  }
  ASSERT_TRUE(ravu_setup_runEngine(handle, RAVU_MODE_CPU));
  EXPECT_EQ(run(handle, {1, 2, 3, 4}), (std::vector<float>{5, 13}));
}

TEST(RunMode, FixedPointWithoutItsLibrarySaysWhichOperatorIsNotInitialised) {
  ModelBuilder model(2, 1);
  model.add_layer(pointwise("data", "mixed", 1));
  model.add_layer(neuron("mixed", "scores", 4, 1, {1, 1, 1, 1}, {0}));
  const Handle handle(model);
  hide_fixed_point_library(handle);
  ASSERT_TRUE(ravu_setup_runEngine(handle, RAVU_MODE_FIXED_POINT));
  CaptureStderr();
  EXPECT_EQ(run(handle, {1, 2, 3, 4}, RAVU_MODE_FIXED_POINT), (std::vector<float>{0}));
  EXPECT_EQ(GetCapturedStderr(),
            "fixpointconvop_ not initialized yet\nFC fixpointfcop_ not initialized\n");
}

TEST(RunMode, FixedPointRunsTheOtherLayersInSinglePrecision) {
  ModelBuilder model(2, 1);
  model.add_layer(
      layer("pool", {"data"}, {"pooled"}).add("psize", 2).add("stride", 2).add("mode", "avg"));
  const Handle handle(model);
  ASSERT_TRUE(ravu_setup_runEngine(handle, RAVU_MODE_FIXED_POINT));
  EXPECT_EQ(run(handle, {1, 2, 3, 5}, RAVU_MODE_FIXED_POINT), (std::vector<float>{2.75F}));
}

TEST(RunMode, ANetworkMaySwitchBetweenTheProcessorModes) {
  const Handle handle(small_classifier());
  for (int i = 0; i < 2; ++i) {
    ASSERT_TRUE(ravu_setup_runEngine(handle, RAVU_MODE_FIXED_POINT));
    ASSERT_TRUE(ravu_setup_runEngine(handle, RAVU_MODE_CPU));
    EXPECT_EQ(run(handle, {1, 2, 3, 4}), (std::vector<float>{5, 13}));
  }
}

TEST(RunMode, ASecondSetUpLosesNothing) {
  const Handle handle(small_classifier());
  ASSERT_TRUE(ravu_setup_runEngine(handle, RAVU_MODE_CPU));
  const auto before = run(handle, {1, 2, 3, 4});
  const auto* storage = ravu_getOutput_blob(handle, 0).data;
  ASSERT_TRUE(ravu_setup_runEngine(handle, RAVU_MODE_CPU));
  EXPECT_EQ(ravu_getOutput_blob(handle, 0).data, storage);
  EXPECT_EQ(values_of(ravu_getOutput_blob(handle, 0)), before);
  EXPECT_EQ(run(handle, {1, 2, 3, 4}), before);
}

TEST(RunMode, ForwardBeforeAnySetUpLeavesTheOutputAsItIs) {
  const Handle handle(small_classifier());
  EXPECT_EQ(run(handle, {1, 2, 3, 4}), (std::vector<float>{0, 0}));
}

TEST(RunMode, ForwardInAModeThatWasNotSetUpDoesNotCrash) {
  const Handle handle(small_classifier());
  ASSERT_TRUE(ravu_setup_runEngine(handle, RAVU_MODE_FIXED_POINT));
  // The weights stand in the other orientation, so the last layer is not ready.
  EXPECT_EQ(run(handle, {1, 2, 3, 4}, RAVU_MODE_CPU), (std::vector<float>{0, 0}));
}

TEST(RunMode, SetUpIsFalseWhenMemoryDoesNotSuffice) {
  Network network;
  network.set_input(make_blob({1, 1, 1, 1}, {1}));
  network.add_layer(std::make_unique<ThrowingLayer>());
  EXPECT_FALSE(ravu_setup_runEngine(to_handle(&network), RAVU_MODE_CPU));
}

TEST(RunMode, ForwardLetsNoBadAllocOut) {
  Network network;
  network.set_input(make_blob({1, 1, 1, 1}, {1}));
  network.add_layer(std::make_unique<ThrowingLayer>());
  EXPECT_NO_THROW(ravu_forward(to_handle(&network), RAVU_MODE_CPU));
}

TEST(ReleasedWeights, AfterTheirReleaseForwardLeavesTheOutputAsItIs) {
  const Handle handle(small_classifier());
  ASSERT_TRUE(ravu_setup_runEngine(handle, RAVU_MODE_CPU));
  const auto before = run(handle, {1, 2, 3, 4});
  ravu_release_netowrk_weights(handle);
  EXPECT_EQ(run(handle, {5, 6, 7, 8}), before);
  ravu_release_netowrk_weights(handle);
  ASSERT_TRUE(ravu_setup_runEngine(handle, RAVU_MODE_CPU));
  EXPECT_EQ(run(handle, {5, 6, 7, 8}), before);
}

TEST(ForwardMean, IsSubtractedByForwardWhenTheModelAsksForPreprocessing) {
  ModelBuilder model = small_classifier();
  model.set("need_crop", integer(1)).set("data_mean", tensor({1, 2, 2, 1}, {1, 2, 3, 4}));
  const Handle handle(model, /*batch=*/2);
  ASSERT_TRUE(ravu_setup_runEngine(handle, RAVU_MODE_CPU));
  const std::vector<float> images{11, 12, 13, 14, 21, 22, 23, 24};
  ravu_set_InputData_byRawData_float(handle, images.data(), 2, 2, 2, 1);
  ravu_forward(handle, RAVU_MODE_CPU);
  // The input itself holds the result: every item lost the same image. The rectifier's output is
  // the same storage.
  const std::vector<float> once{10, 10, 10, 10, 20, 20, 20, 20};
  EXPECT_EQ(values_of(*handle.network().input), once);
}

TEST(ForwardMean, IsSubtractedAgainByASecondForwardOnTheSameInput) {
  ModelBuilder model = small_classifier();
  model.set("data_mean", tensor({1, 2, 2, 1}, {1, 1, 1, 1}));
  const Handle handle(model);
  ASSERT_TRUE(ravu_setup_runEngine(handle, RAVU_MODE_CPU));
  EXPECT_EQ(run(handle, {5, 5, 5, 5}), (std::vector<float>{5, 13}));
  ravu_forward(handle, RAVU_MODE_CPU);
  EXPECT_EQ(values_of(ravu_getOutput_blob(handle, 0)), (std::vector<float>{4, 11}));
}

TEST(ForwardMean, IsNeverSubtractedByForwardWithNeedCropZero) {
  ModelBuilder model = small_classifier();
  model.set("need_crop", integer(0)).set("data_mean", tensor({1, 2, 2, 1}, {1, 1, 1, 1}));
  const Handle handle(model);
  ASSERT_TRUE(ravu_setup_runEngine(handle, RAVU_MODE_CPU));
  EXPECT_EQ(run(handle, {5, 5, 5, 5}), (std::vector<float>{6, 15}));
}

TEST(ForwardMean, SetUpTurnsAPlanarMeanIntoInterleavedOrder) {
  ModelBuilder model = input_only(2, 2).set("layout", text("BCHW"));
  model.set("data_mean", tensor({1, 2, 2, 2}, {1, 2, 3, 4, 10, 20, 30, 40}));
  const Handle handle(model);
  const Network& network = handle.network();
  EXPECT_EQ(network.mean->layout, kPlanar);
  const std::vector<float> turned{1, 10, 2, 20, 3, 30, 4, 40};
  ASSERT_TRUE(ravu_setup_runEngine(handle, RAVU_MODE_CPU));
  EXPECT_EQ(network.layout, kInterleaved);
  EXPECT_EQ(network.mean->layout, kInterleaved);
  EXPECT_EQ(values_of(*network.mean), turned);
  ASSERT_TRUE(ravu_setup_runEngine(handle, RAVU_MODE_FIXED_POINT));
  EXPECT_EQ(values_of(*network.mean), turned);
}

}  // namespace
}  // namespace ravu::test
