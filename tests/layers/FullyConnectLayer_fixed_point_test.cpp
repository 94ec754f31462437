// Fully connected in run mode 3: what the library is called with, and when it is not.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "fakes/fake_fixpoint.h"
#include "layers/FullyConnectLayer.h"
#include "support/blobs.h"
#include "support/captured.h"

namespace ravu::test {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

// A base, so that the layer is there before its rig.
struct OneProduct {
  FullyConnectLayer product;
};

// Three features, two outputs, weights in rows per feature.
struct Rig : OneProduct, LayerRig {
  explicit Rig(std::uint32_t batch = 1) : LayerRig(product) {
    reset_fake_fixpoint();
    workspace.fixed_point = fake_fixed_point_library();
    product.weights = make_blob({3, 2, 1, 1}, {1, 2, 3, 4, 5, 6});
    product.bias = make_blob({1, 1, 1, 2}, {7, 8});
    product.has_bias = true;
    input = &add_input({batch, 1, 1, 3}, {10, 20, 30, 40, 50, 60});
    output = &add_output({batch, 1, 1, 2});
  }

  std::vector<std::string> calls_of_set_up() {
    fake_fixpoint().calls.clear();
    EXPECT_TRUE(product.Setup(3, params));
    return fake_fixpoint().calls;
  }

  Blob* input = nullptr;
  Blob* output = nullptr;
};

constexpr const char* kNotInitialised = "FC fixpointfcop_ not initialized\n";

TEST(FullyConnectLayerFixedPointSetup, CreatesConfiguresAndFinishesWithRowsPerOutput) {
  Rig rig;
  EXPECT_THAT(rig.calls_of_set_up(),
              ElementsAre("23(1)", "29(A, 2, 3, [1 3 5 2 4 6], [7 8], false)", "28(A, 64)",
                          "102(A, threads)"));
}

TEST(FullyConnectLayerFixedPointSetup, RowsPerOutputAreHandedOverAsTheyAre) {
  Rig rig;
  rig.product.weights_transposed = true;
  rig.product.weights = make_blob({2, 3, 1, 1}, {1, 2, 3, 4, 5, 6});
  EXPECT_EQ(rig.calls_of_set_up().at(1), "29(A, 2, 3, [1 2 3 4 5 6], [7 8], false)");
}

TEST(FullyConnectLayerFixedPointSetup, PlanarRowsAreInterleavedFirst) {
  Rig rig;
  reshape(*rig.input, *make_shape(1, 1, 2, 2, kInterleaved));
  rig.product.weights = make_blob({2, 4, 1, 1}, {1, 2, 3, 4, 5, 6, 7, 8});
  rig.product.weights->layout = kPlanar;
  EXPECT_EQ(rig.calls_of_set_up().at(1), "29(A, 2, 4, [1 3 2 4 5 7 6 8], [7 8], false)");
}

TEST(FullyConnectLayerFixedPointSetup, WithoutBiasItsDataIsNull) {
  Rig rig;
  rig.product.has_bias = false;
  rig.product.bias.reset();
  EXPECT_EQ(rig.calls_of_set_up().at(1), "29(A, 2, 3, [1 3 5 2 4 6], null, false)");
}

TEST(FullyConnectLayerFixedPointSetup, ASecondOneKeepsTheOperator) {
  Rig rig;
  rig.set_up(/*mode=*/3);
  EXPECT_THAT(rig.calls_of_set_up(), ElementsAre("102(A, threads)"));
}

TEST(FullyConnectLayerFixedPointSetup, ARefusalLeavesTheLayerWithoutAnOperator) {
  for (const std::uint32_t refused : {23U, 28U, 29U}) {
    Rig rig;
    fake_fixpoint().refused = refused;
    rig.set_up(/*mode=*/3);
    EXPECT_EQ(fake_fixpoint().living, 0) << refused;
    EXPECT_EQ(captured_stderr([&] { EXPECT_TRUE(rig.product.Forward(3)); }), kNotInitialised);
    EXPECT_EQ(values_of(*rig.output), std::vector<float>(2, 0.0F));
  }
}

TEST(FullyConnectLayerFixedPointForward, HandsTheInputOverAndRuns) {
  Rig rig(/*batch=*/2);
  rig.set_up(/*mode=*/3);
  fake_fixpoint().calls.clear();
  EXPECT_EQ(rig.run(3), (std::vector<float>{1, 2, 3, 4}));
  EXPECT_THAT(fake_fixpoint().calls,
              ElementsAre("27(A, 2, 3, [10 20 30 40 50 60], 127)", "25(A, 0.5)"));
  EXPECT_EQ(fake_fixpoint().input, rig.input->data);
  EXPECT_EQ(fake_fixpoint().output, rig.output->data);
}

TEST(FullyConnectLayerFixedPointForward, RunsOnlyWhileTheWeightsStandAsItWasGivenThem) {
  Rig rig;
  rig.set_up(/*mode=*/3);
  rig.set_up(/*mode=*/0);
  fake_fixpoint().calls.clear();
  EXPECT_EQ(rig.run(3), std::vector<float>(2, 0.0F));
  EXPECT_THAT(fake_fixpoint().calls, IsEmpty());
  rig.set_up(/*mode=*/3);
  EXPECT_EQ(rig.run(3), (std::vector<float>{1, 2}));
}

TEST(FullyConnectLayerFixedPointForward, ABiasOfAnotherLengthIsAddedByTheLayer) {
  Rig rig(/*batch=*/2);
  rig.product.bias = make_blob({1, 1, 1, 3}, {1000, 2000, 3000});
  EXPECT_EQ(rig.calls_of_set_up().at(1), "29(A, 2, 3, [1 3 5 2 4 6], null, false)");
  EXPECT_EQ(rig.run(3), (std::vector<float>{1001, 2002, 3003, 1004}));
}

TEST(FullyConnectLayerFixedPointForward, ARefusedInputLeavesTheOutput) {
  for (const std::uint32_t refused : {25U, 27U}) {
    Rig rig;
    rig.set_up(/*mode=*/3);
    fake_fixpoint().refused = refused;
    EXPECT_EQ(rig.run(3), std::vector<float>(2, 0.0F)) << refused;
  }
}

// More outputs in the weights than the output Blob has: the operator would write past its end.
TEST(FullyConnectLayerFixedPointForward, MoreOutputsThanTheBlobHoldsComputeNothing) {
  Rig rig;
  rig.product.weights_transposed = true;
  rig.product.weights = make_blob({4, 3, 1, 1}, random_values(12, 1));
  rig.product.bias = make_blob({1, 1, 1, 4}, random_values(4, 2));
  ASSERT_TRUE(fits(rig.product));
  rig.set_up(/*mode=*/3);
  fake_fixpoint().calls.clear();
  EXPECT_EQ(rig.run(3), std::vector<float>(2, 0.0F));
  EXPECT_THAT(fake_fixpoint().calls, IsEmpty());
}

TEST(FullyConnectLayerFixedPointRelease, TheOperatorGoesWithTheWeights) {
  Rig rig;
  rig.set_up(/*mode=*/3);
  EXPECT_EQ(fake_fixpoint().living, 1);
  rig.product.ReleaseWeights();
  EXPECT_EQ(fake_fixpoint().living, 0);
  EXPECT_EQ(captured_stderr([&] { rig.product.Forward(3); }), kNotInitialised);
}

}  // namespace
}  // namespace ravu::test
