// Convolution in run mode 3: what the library is called with, in which order, and where its results
// go. The fake library writes the calls down.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "fakes/fake_fixpoint.h"
#include "layers/ConvLayer.h"
#include "support/blobs.h"
#include "support/captured.h"

namespace ravu::test {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

// A base, so that the layer is there before its rig.
struct OneConv {
  ConvLayer conv;
};

// A convolution of 2 x 1 kernels, with the fake library in place.
struct Rig : OneConv, LayerRig {
  explicit Rig(int groups = 1) : LayerRig(conv) {
    reset_fake_fixpoint();
    workspace.fixed_point = fake_fixed_point_library();
    conv.groups = groups;
    conv.output_channels = 2;
    conv.kernel_h = 2;
    conv.kernel_w = 1;
    for (int g = 0; g < groups; ++g) {
      const auto first = static_cast<float>(10 * g);
      conv.weights.push_back(make_blob({2, 2, 1, 1}, {first, first + 1, first + 2, first + 3}));
      conv.biases.push_back(make_blob({1, 1, 1, 2}, {first + 5, first + 6}));
    }
    conv.has_bias = true;
  }

  void wire(Dims input_dims, const std::vector<float>& values) {
    input = &add_input(input_dims, values);
    output = &add_output(conv_record_shape(conv, *input, conv.groups > 1)->dims);
  }

  // What the set-up, or a run, calls.
  std::vector<std::string> calls_of_set_up() {
    fake_fixpoint().calls.clear();
    set_up(/*mode=*/3);
    return fake_fixpoint().calls;
  }
  std::vector<std::string> calls_of_run() {
    fake_fixpoint().calls.clear();
    EXPECT_TRUE(conv.Forward(3));
    return fake_fixpoint().calls;
  }

  Blob* input = nullptr;
  Blob* output = nullptr;
};

constexpr const char* kNotInitialised = "fixpointconvop_ not initialized yet\n";

TEST(ConvLayerFixedPointSetup, CreatesTheOperatorsThenConfiguresAndFinishesEach) {
  Rig rig(/*groups=*/2);
  rig.conv.stride_h = 3;
  rig.conv.stride_w = 4;
  rig.conv.dilation_h = 1;
  rig.conv.dilation_w = 2;
  rig.conv.pad_h = 7;
  rig.conv.pad_w = 8;
  rig.wire({1, 9, 10, 2}, random_values(180, 1));
  EXPECT_THAT(
      rig.calls_of_set_up(),
      ElementsAre("8(1)", "8(1)",
                  "14(A, 2, 1, 1, 2, 1, 3, 4, 1, 2, 7, 8, [0 1 2 3], true, [5 6], false)",
                  "13(A, 64)",
                  "14(B, 2, 1, 1, 2, 1, 3, 4, 1, 2, 7, 8, [10 11 12 13], true, [15 16], false)",
                  "13(B, 64)", "102(A, threads)", "102(B, threads)"));
}

TEST(ConvLayerFixedPointSetup, ASecondOneKeepsTheOperatorsAndReadsTheThreadCountAgain) {
  Rig rig;
  rig.wire({1, 3, 1, 1}, {1, 2, 3});
  rig.set_up(/*mode=*/3);
  EXPECT_THAT(rig.calls_of_set_up(), ElementsAre("102(A, threads)"));
  rig.set_up(/*mode=*/0);
  EXPECT_THAT(rig.calls_of_set_up(), ElementsAre("102(A, threads)"));
}

TEST(ConvLayerFixedPointSetup, WithoutBiasTheFlagIsFalseAndTheDataNull) {
  Rig rig;
  rig.conv.has_bias = false;
  rig.wire({1, 3, 1, 1}, {1, 2, 3});
  EXPECT_EQ(rig.calls_of_set_up().at(1),
            "14(A, 2, 1, 1, 2, 1, 1, 1, 1, 1, 0, 0, [0 1 2 3], false, null, false)");
}

TEST(ConvLayerFixedPointSetup, PlanarWeightsReachTheLibraryInterleaved) {
  Rig rig;
  rig.conv.output_channels = 1;
  rig.conv.weights[0] = make_blob({2, 2, 1, 1}, {1, 2, 3, 4});
  rig.conv.weights[0]->layout = kPlanar;
  rig.conv.has_bias = false;
  rig.wire({1, 2, 1, 2}, {1, 2, 3, 4});
  EXPECT_EQ(rig.calls_of_set_up().at(1),
            "14(A, 1, 2, 1, 2, 1, 1, 1, 1, 1, 0, 0, [1 3 2 4], false, null, false)");
  EXPECT_TRUE(rig.conv.kernels_transposed);
}

TEST(ConvLayerFixedPointSetup, ARefusalLeavesTheLayerWithoutOperators) {
  for (const std::uint32_t refused : {8U, 13U, 14U}) {
    Rig rig(/*groups=*/2);
    rig.wire({1, 3, 1, 2}, random_values(6, 1));
    fake_fixpoint().refused = refused;
    rig.set_up(/*mode=*/3);
    EXPECT_TRUE(rig.conv.operators.empty()) << refused;
    EXPECT_EQ(fake_fixpoint().living, 0) << refused;
    EXPECT_EQ(captured_stderr([&] { rig.conv.Forward(3); }), kNotInitialised);
  }
}

TEST(ConvLayerFixedPointSetup, WeightsOfTheLayersTotalGetNoOperator) {
  Rig rig(/*groups=*/2);
  rig.conv.output_channels = 4;
  rig.wire({1, 3, 1, 2}, random_values(6, 1));
  ASSERT_TRUE(fits(rig.conv));
  EXPECT_THAT(rig.calls_of_set_up(), IsEmpty());
  EXPECT_EQ(captured_stderr([&] { rig.conv.Forward(3); }), kNotInitialised);
}

TEST(ConvLayerFixedPointSetup, ModeZeroCallsNothing) {
  Rig rig;
  rig.wire({1, 3, 1, 1}, {1, 2, 3});
  rig.set_up(/*mode=*/0);
  EXPECT_THAT(fake_fixpoint().calls, IsEmpty());
}

TEST(ConvLayerFixedPointForward, OneGroupReadsTheInputAndWritesTheOutputInPlace) {
  Rig rig;
  rig.wire({2, 3, 2, 1}, {1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12});
  rig.set_up(/*mode=*/3);
  EXPECT_THAT(rig.calls_of_run(),
              ElementsAre("12(A, 2, 1, 2, 3, [1 2 3 4 5 6 7 8 9 10 11 12], 127)", "10(A, 0.5)"));
  EXPECT_EQ(fake_fixpoint().input, rig.input->data);
  EXPECT_EQ(fake_fixpoint().output, rig.output->data);
  EXPECT_EQ(values_of(*rig.output)[15], 16);
}

TEST(ConvLayerFixedPointForward, EachGroupGetsItsChannelsAndTheResultsAreInterleaved) {
  Rig rig(/*groups=*/2);
  rig.wire({1, 2, 3, 2}, {0, 100, 1, 101, 2, 102, 3, 103, 4, 104, 5, 105});
  rig.set_up(/*mode=*/3);
  EXPECT_THAT(rig.calls_of_run(),
              ElementsAre("12(A, 1, 1, 3, 2, [0 1 2 3 4 5], 127)", "10(A, 0.5)",
                          "12(B, 1, 1, 3, 2, [100 101 102 103 104 105], 127)", "10(B, 0.5)"));
  EXPECT_EQ(values_of(*rig.output),
            (std::vector<float>{1, 2, 101, 102, 3, 4, 103, 104, 5, 6, 105, 106}));
}

TEST(ConvLayerFixedPointForward, WithoutOperatorsItSaysSoAndIsDone) {
  Rig rig;
  rig.wire({1, 3, 1, 1}, {1, 2, 3});
  rig.set_up(/*mode=*/0);
  EXPECT_EQ(captured_stderr([&] { EXPECT_TRUE(rig.conv.Forward(3)); }), kNotInitialised);
  EXPECT_EQ(values_of(*rig.output), std::vector<float>(4, 0.0F));
}

TEST(ConvLayerFixedPointForward, ABiasOfAnotherLengthIsAddedByTheLayer) {
  Rig rig;
  rig.conv.biases[0] = make_blob({1, 1, 1, 3}, {1000, 2000, 3000});
  rig.wire({1, 3, 1, 1}, {1, 2, 3});
  EXPECT_EQ(rig.calls_of_set_up().at(1),
            "14(A, 2, 1, 1, 2, 1, 1, 1, 1, 1, 0, 0, [0 1 2 3], true, null, false)");
  EXPECT_EQ(rig.run(3), (std::vector<float>{1001, 2002, 3003, 1004}));
}

TEST(ConvLayerFixedPointForward, ARefusedInputLeavesTheOutput) {
  for (const std::uint32_t refused : {10U, 12U}) {
    Rig rig(/*groups=*/2);
    rig.wire({1, 3, 1, 2}, random_values(6, 1));
    rig.set_up(/*mode=*/3);
    fake_fixpoint().refused = refused;
    EXPECT_EQ(rig.run(3), std::vector<float>(8, 0.0F)) << refused;
  }
}

TEST(ConvLayerFixedPointForward, TheBatchMayChange) {
  Rig rig(/*groups=*/2);
  rig.wire({1, 3, 1, 2}, random_values(6, 1));
  rig.set_up(/*mode=*/3);
  reshape(*rig.input, *make_shape(2, 2, 1, 2, kInterleaved));
  rig.conv.Reshape();
  EXPECT_THAT(rig.calls_of_run(), ElementsAre("12(A, 2, 1, 1, 2, [0 0 0 0], 127)", "10(A, 0.5)",
                                              "12(B, 2, 1, 1, 2, [0 0 0 0], 127)", "10(B, 0.5)"));
  EXPECT_EQ(values_of(*rig.output), (std::vector<float>{1, 2, 101, 102, 3, 4, 103, 104}));
}

// After a shape change the output has room for pixels that dilation does not reach.
TEST(ConvLayerFixedPointForward, ImagesStandInTheirOwnPlacesAndTheRestIsZero) {
  Rig rig;
  rig.conv.dilation_h = 2;
  rig.wire({1, 5, 1, 1}, {1, 2, 3, 4, 5});
  rig.set_up(/*mode=*/3);
  reshape(*rig.input, *make_shape(2, 4, 1, 1, kInterleaved));
  rig.conv.Reshape();
  EXPECT_EQ(rig.output->dims, (Dims{2, 3, 1, 2}));
  EXPECT_EQ(rig.run(3), (std::vector<float>{1, 2, 0, 0, 0, 0, 3, 4, 0, 0, 0, 0}));
}

TEST(ConvLayerFixedPointRelease, OperatorsGoWithTheWeightsAndWithTheLayer) {
  {
    Rig rig(/*groups=*/2);
    rig.wire({1, 3, 1, 2}, random_values(6, 1));
    rig.set_up(/*mode=*/3);
    EXPECT_EQ(fake_fixpoint().living, 2);
    rig.conv.ReleaseWeights();
    EXPECT_EQ(fake_fixpoint().living, 0);
    EXPECT_EQ(captured_stderr([&] { rig.conv.Forward(3); }), kNotInitialised);
  }
  {
    Rig rig;
    rig.wire({1, 3, 1, 1}, {1, 2, 3});
    rig.set_up(/*mode=*/3);
    EXPECT_EQ(fake_fixpoint().living, 1);
  }
  EXPECT_EQ(fake_fixpoint().living, 0);
}

}  // namespace
}  // namespace ravu::test
