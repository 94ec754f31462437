// The primitives that each layer class adds: identifiers, parameters, descriptors. Whole models are
// read, since the counters that the names hold are the loader's.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "fakes/Built.h"
#include "support/records.h"

namespace ravu::test {
namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;

TEST(GpuConvolution, UploadsWeightsWithTheOutputsInnermost) {
  ModelBuilder model(2, 2);
  model.add_layer(
      layer("conv", {"data"}, {"c"})
          .add("spec", Dictionary().add("num_kernels", 2).add("stride", 1).add("ksize", 1))
          .add("padding", 0)
          .add("has_bias", 1)
          .add("kernels", tensor({2, 1, 1, 2}, {1, 2, 3, 4}))
          .add("bias", tensor({2}, {5, 6})));
  Built built(model);
  EXPECT_THAT(built.primitives(),
              ElementsAre("convolution c <- data: offset 0x0x0x0 stride 1x1x1x1 dilation 1x1x1x1 "
                          "split 1 weights [c_0_weights_0] bias [c_0_bias_0]"));
  EXPECT_EQ(built.fake.data("c_0_weights_0"), (std::vector<float>{1, 3, 2, 4}));
  EXPECT_EQ(built.fake.data("c_0_bias_0"), (std::vector<float>{5, 6}));
  EXPECT_THAT(built.fake.lines({"allocate_memory"}),
              ElementsAre("allocate_memory 2x2x1x1", "allocate_memory 1x1x2x1"));
}

TEST(GpuConvolution, GivesEachGroupItsOwnWeightsAndBias) {
  ModelBuilder model(5, 6);
  model.add_layer(
      group_record("data", "c", 2, {.inputs = 3, .kernels = 2, .stride = 2, .padding = 1}));
  Built built(model);
  EXPECT_THAT(
      built.primitives(),
      ElementsAre("convolution c <- data: offset 0x0x-1x-1 stride 1x1x2x2 dilation 1x1x1x1 split 2 "
                  "weights [c_0_weights_0 c_0_weights_1] bias [c_0_bias_0 c_0_bias_1]"));
  EXPECT_THAT(built.fake.lines({"allocate_memory"}),
              ElementsAre("allocate_memory 2x3x3x3", "allocate_memory 2x3x3x3",
                          "allocate_memory 1x1x2x1", "allocate_memory 1x1x2x1"));
}

// The file says 4 outputs, which its tensors show to be those of both groups together.
TEST(GpuConvolution, TakesATotalOfOutputsWhereTheTensorsShowIt) {
  const Bytes spec = Dictionary().add("num_kernels", 4).add("stride", 1).add("ksize", 1);
  const Bytes set = Dictionary()
                        .add("spec", spec)
                        .add("padding", 0)
                        .add("has_bias", 0)
                        .add("kernels", tensor({2, 1, 1, 1}, {1, 2}));
  ModelBuilder model(2, 2);
  model.add_layer(
      layer("gconv", {"data"}, {"c"}).add("layers_count", 2).add("layers", list({set, set})));
  Built built(model);
  EXPECT_THAT(built.primitives(), ElementsAre(HasSubstr("split 2")));
  EXPECT_THAT(built.fake.lines({"allocate_memory"}),
              ElementsAre("allocate_memory 2x1x1x1", "allocate_memory 2x1x1x1"));
}

TEST(GpuConvolution, InterleavesPlanarWeights) {
  ModelBuilder model(2, 2);
  model.set("layout", text("BCHW"));
  model.add_layer(
      layer("conv", {"data"}, {"c"})
          .add("spec", Dictionary().add("num_kernels", 1).add("stride", 1).add("ksize", 2))
          .add("padding", 0)
          .add("has_bias", 0)
          .add("kernels", tensor({2, 2, 2, 1}, {1, 2, 3, 4, 10, 20, 30, 40})));
  Built built(model);
  built.primitives();
  EXPECT_EQ(built.fake.data("c_0_weights_0"), (std::vector<float>{1, 10, 2, 20, 3, 30, 4, 40}));
}

TEST(GpuConvolution, IsRefusedOnceItsWeightsAreReleased) {
  ModelBuilder model(3, 1);
  model.add_layer(conv_record("data", "c", {.inputs = 1, .kernels = 1}));
  Built built(model);
  built.network->release_weights();
  EXPECT_EQ(refusal(built), "primitive add failed: the weights have been released");
}

TEST(GpuFullyConnected, UploadsOneRowOfOutputsForEachFeature) {
  ModelBuilder model(1, 3);
  model.add_layer(layer("neuron", {"data"}, {"f"})
                      .add("spec", Dictionary().add("num_output", 2))
                      .add("weight", tensor({2, 3}, {1, 2, 3, 4, 5, 6}))
                      .add("are_weights_transposed", 1)
                      .add("has_bias", 1)
                      .add("bias", tensor({2}, {7, 8})));
  Built built(model);
  EXPECT_THAT(built.primitives(),
              ElementsAre("fully_connected f <- data: weights f_0_weights bias f_0_bias"));
  EXPECT_EQ(built.fake.data("f_0_weights"), (std::vector<float>{1, 4, 2, 5, 3, 6}));
  EXPECT_EQ(built.fake.data("f_0_bias"), (std::vector<float>{7, 8}));
  EXPECT_THAT(built.fake.lines({"allocate_memory"}),
              ElementsAre("allocate_memory 2x3x1x1", "allocate_memory 1x1x2x1"));
}

TEST(GpuFullyConnected, SpreadsTheFeaturesOverChannelsAndPixels) {
  ModelBuilder model(3, 2);
  model.add_layer(layer("neuron", {"data"}, {"f"})
                      .add("spec", Dictionary().add("num_output", 4))
                      .add("weight", random_tensor({18, 4}, 1))
                      .add("has_bias", 0));
  Built built(model);
  EXPECT_THAT(built.primitives(), ElementsAre("fully_connected f <- data: weights f_0_weights"));
  EXPECT_THAT(built.fake.lines({"allocate_memory"}), ElementsAre("allocate_memory 4x2x9x1"));
}

TEST(GpuBatchNorm, SquaresTheDivisors) {
  ModelBuilder model(2, 2);
  model.add_layer(layer("bn", {"data"}, {"b"})
                      .add("eps", 0.5F)
                      .add("mean", tensor({1, 1, 1, 2}, {1, 2}))
                      .add("var", tensor({1, 1, 1, 2}, {3, 4})));
  Built built(model);
  EXPECT_THAT(
      built.primitives(),
      ElementsAre("batch_norm b <- data: mean b_0_mean variance b_0_var global epsilon 0.5"));
  EXPECT_EQ(built.fake.data("b_0_mean"), (std::vector<float>{1, 2}));
  EXPECT_EQ(built.fake.data("b_0_var"), (std::vector<float>{9, 16}));
  EXPECT_THAT(built.fake.lines({"allocate_memory"}),
              ElementsAre("allocate_memory 1x2x1x1", "allocate_memory 1x2x1x1"));
}

TEST(GpuScale, UploadsScaleAndBiasAlike) {
  ModelBuilder model(2, 3);
  model.add_layer(scale_record("data", "s", {1, 1, 1, 3}, /*bias=*/true));
  Built built(model);
  EXPECT_THAT(built.primitives(), ElementsAre("scale s <- data: by s_0_scale bias s_0_scale_bias"));
  EXPECT_THAT(built.fake.lines({"allocate_memory"}),
              ElementsAre("allocate_memory 1x3x1x1", "allocate_memory 1x3x1x1"));
}

TEST(GpuScale, TakesALargerTensorForWholeImages) {
  ModelBuilder model(2, 3);
  model.add_layer(scale_record("data", "s", {1, 2, 2, 3}, /*bias=*/false));
  Built built(model, /*batch=*/2);
  EXPECT_THAT(built.primitives(), ElementsAre("scale s <- data: by s_0_scale"));
  EXPECT_THAT(built.fake.lines({"allocate_memory"}), ElementsAre("allocate_memory 1x3x2x2"));
}

TEST(GpuScale, RefusesATensorThatDoesNotRepeat) {
  ModelBuilder model(2, 3);
  model.add_layer(scale_record("data", "s", {1, 1, 1, 5}, /*bias=*/false));
  Built built(model);
  EXPECT_THAT(refusal(built), HasSubstr("primitive add failed: its parameters do not repeat"));
}

TEST(GpuRelu, IsAnActivationWithItsSlope) {
  ModelBuilder model(2, 1);
  model.add_layer(relu_record("data", "r", 0.25F));
  EXPECT_THAT(Built(model).primitives(), ElementsAre("activation r <- data: slope 0.25"));
}

TEST(GpuPRelu, UploadsTheSlopesAlongX) {
  ModelBuilder model(2, 3);
  model.add_layer(prelu_record("data", "p", 3));
  Built built(model);
  EXPECT_THAT(built.primitives(), ElementsAre("activation p <- data: slopes p_0_slope"));
  EXPECT_THAT(built.fake.lines({"allocate_memory"}), ElementsAre("allocate_memory 1x1x3x1"));
}

TEST(GpuPower, MultipliesByTheScaleAlone) {
  ModelBuilder model(2, 3);
  model.add_layer(power_record("data", "p", 2.0F, 3.0F, 4.0F));
  Built built(model);
  EXPECT_THAT(built.primitives(), ElementsAre("scale p <- data: by p_0_scale"));
  EXPECT_EQ(built.fake.data("p_0_scale"), (std::vector<float>{3}));
}

TEST(GpuEltWise, CombinesTwoInputsWithItsMode) {
  ModelBuilder model(2, 1);
  model.add_layer(layer("max", {"data"}, {"a"}));
  model.add_layer(eltwise_record({"data", "a"}, "e", "prod"));
  EXPECT_THAT(Built(model).primitives(),
              ElementsAre(HasSubstr("softmax a"), "eltwise e <- data: with a mode 3"));
}

TEST(GpuEltWise, ChainsMoreThanTwoInputs) {
  ModelBuilder model(2, 1);
  model.add_layer(layer("max", {"data"}, {"a"}));
  model.add_layer(layer("max", {"data"}, {"b"}));
  model.add_layer(eltwise_record({"data", "a", "b", "a"}, "e", "sum"));
  const Texts primitives = Built(model).primitives();
  EXPECT_THAT(Texts(primitives.begin() + 2, primitives.end()),
              ElementsAre("eltwise e_0 <- data: with a mode 0", "eltwise e_1 <- e_0: with b mode 0",
                          "eltwise e <- e_1: with a mode 0"));
}

TEST(GpuEltWise, TakesAFreshIdentifierWhereItWritesAnInput) {
  ModelBuilder model(2, 1);
  model.add_layer(layer("max", {"data"}, {"a"}));
  model.add_layer(eltwise_record({"data", "a"}, "a", "sum"));
  model.add_layer(relu_record("a", "r"));
  EXPECT_THAT(Built(model).primitives(),
              ElementsAre(HasSubstr("softmax a"), "eltwise a_0 <- data: with a mode 0",
                          "activation r <- a_0: slope 0"));
}

TEST(GpuPooling, PassesTheWindowAndNoPadding) {
  ModelBuilder model(6, 3);
  model.add_layer(pool_record("data", "p", "max", 3, 2, /*padding=*/1));
  model.add_layer(pool_record("data", "q", "avg", 2, 2));
  EXPECT_THAT(
      Built(model, 2).primitives(),
      ElementsAre("pooling p <- data: mode 0 window 2x3x3x3 stride 1x1x2x2 offset 0x0x0x0",
                  "pooling q <- data: mode 1 window 2x3x2x2 stride 1x1x2x2 offset 0x0x0x0"));
}

TEST(GpuLrn, PassesItsParameters) {
  ModelBuilder model(2, 3);
  model.add_layer(lrn_record("data", "l", 5));
  EXPECT_THAT(Built(model).primitives(),
              ElementsAre("lrn l <- data: size 5 k 1 alpha 0.3 beta 0.75 region 0"));
}

TEST(GpuNormalize, NamesItsScaleAfterTheInput) {
  ModelBuilder model(2, 3);
  model.add_layer(norm_record("data", "n", false, false, {1, 2, 3}));
  Built built(model);
  EXPECT_THAT(built.primitives(), ElementsAre("normalize n <- data: scale data_0_scale epsilon 0"));
  EXPECT_THAT(built.fake.lines({"allocate_memory"}), ElementsAre("allocate_memory 1x1x3x1"));
}

TEST(GpuNormalize, UploadsOneValueWhereTheChannelsShareIt) {
  ModelBuilder model(2, 3);
  model.add_layer(norm_record("data", "n", true, true, {4, 5}));
  Built built(model);
  EXPECT_THAT(built.primitives(),
              ElementsAre("normalize n <- data: scale data_0_scale across epsilon 0"));
  EXPECT_EQ(built.fake.data("data_0_scale"), (std::vector<float>{4}));
}

TEST(GpuSoftmax, RunsOverTheChannelsOfAPixelOrOverTheWholeImage) {
  ModelBuilder maps(2, 3);
  maps.add_layer(layer("max", {"data"}, {"s"}));
  EXPECT_THAT(Built(maps).primitives(), ElementsAre("softmax s <- data: dimension 1"));
  ModelBuilder plane(2, 1);
  plane.add_layer(layer("max", {"data"}, {"s"}));
  EXPECT_THAT(Built(plane).primitives(), ElementsAre("softmax s <- data: dimension 5"));
  ModelBuilder scores(1, 3);
  scores.add_layer(layer("max", {"data"}, {"s"}));
  EXPECT_THAT(Built(scores).primitives(), ElementsAre("softmax s <- data: dimension 5"));
}

TEST(GpuConcat, JoinsChannels) {
  ModelBuilder model(2, 3);
  model.add_layer(lrn_record("data", "l", 1));
  model.add_layer(layer("concat", {"l", "data"}, {"c"}));
  EXPECT_THAT(Built(model).primitives(),
              ElementsAre(HasSubstr("lrn l"), "concatenation c <- l data: axis 1"));
}

TEST(GpuConcat, GivesFlattenedMapsTheirFlatSizesFirst) {
  ModelBuilder model(4, 2);
  model.add_layer(pool_record("data", "p", "max", 2, 2));
  model.add_layer(layer("flatten", {"data"}, {"f1"}));
  model.add_layer(layer("flatten", {"p"}, {"f2"}));
  model.add_layer(layer("concat", {"f1", "f2"}, {"c"}));
  const Texts primitives = Built(model, 3).primitives();
  EXPECT_THAT(
      Texts(primitives.begin() + 1, primitives.end()),
      ElementsAre("reshape data_reshape <- data: to 3x32x1x1", "reshape p_reshape <- p: to 3x8x1x1",
                  "concatenation c <- data_reshape p_reshape: axis 1"));
}

TEST(GpuConcat, JoinsPriorBoxesAlongY) {
  ModelBuilder model(4, 2);
  model.add_layer(pool_record("data", "m", "max", 2, 2));
  model.add_layer(prior_record({"data", "data"}, "p1", {}));
  model.add_layer(prior_record({"m", "data"}, "p2", {}));
  model.add_layer(layer("concat", {"p1", "p2"}, {"p"}));
  EXPECT_EQ(Built(model).primitives().back(), "concatenation p <- p1 p2: axis 3");
}

TEST(GpuCrop, TakesAFreshIdentifierSinceItBearsTheInputsName) {
  ModelBuilder model(6, 2);
  model.set("image_size", integer(3));
  model.add_layer(relu_record("data", "r"));
  EXPECT_THAT(Built(model, 2).primitives(),
              ElementsAre("crop data_0 <- data: size 2x2x3x3 offsets 0x0x1x1",
                          "activation r <- data_0: slope 0"));
}

TEST(GpuFlatten, AddsNothingAndBecomesAnotherName) {
  ModelBuilder model(2, 3);
  model.add_layer(layer("flatten", {"data"}, {"f"}));
  model.add_layer(relu_record("f", "r"));
  EXPECT_THAT(Built(model).primitives(), ElementsAre("activation r <- data: slope 0"));
}

TEST(GpuReshape, TakesTheSizesOfItsOutput) {
  ModelBuilder model(2, 6);
  model.add_layer(reshape_record("data", "r", {-1, 4, 2, 3}));
  EXPECT_THAT(Built(model).primitives(), ElementsAre("reshape r <- data: to 1x3x2x4"));
}

TEST(GpuReshape, ToTheSameSizesAddsNothing) {
  ModelBuilder model(2, 6);
  model.add_layer(reshape_record("data", "r", {-1, 2, 2, 6}));
  model.add_layer(relu_record("r", "s"));
  EXPECT_THAT(Built(model).primitives(), ElementsAre("activation s <- data: slope 0"));
}

TEST(GpuReshape, OfTheBatchIsRefused) {
  ModelBuilder model(2, 6);
  model.add_layer(reshape_record("data", "r", {2, 2, 2, 3}));
  Built built(model);
  EXPECT_EQ(refusal(built), "primitive add failed: a reshape must not change the batch");
}

TEST(GpuPermute, PassesItsOrderWhateverTheFlagSays) {
  ModelBuilder model(2, 2);
  model.add_layer(permute_record("data", "p", /*need_permute=*/false, {0, 3, 1, 2}));
  EXPECT_EQ(Built(model).primitives().front(), "permute p <- data: 0 3 1 2");
}

TEST(GpuPermute, GetsTheBlobsSizesBackBehindIt) {
  ModelBuilder model(3, 2);
  model.add_layer(permute_record("data", "p", /*need_permute=*/true, {2, 0, 1, 3}));
  model.add_layer(relu_record("p", "r"));
  EXPECT_THAT(Built(model).primitives(),
              ElementsAre("permute p <- data: 2 0 1 3", "reshape p_reshape <- p: to 1x2x3x3",
                          "activation r <- p_reshape: slope 0"));
}

TEST(GpuPermute, AnOrderThatIsNoneIsRefused) {
  ModelBuilder model(2, 2);
  model.add_layer(permute_record("data", "p", /*need_permute=*/false, {0, 0, 1, 9}));
  Built built(model);
  EXPECT_THAT(refusal(built), HasSubstr("permute_order"));
}

TEST(GpuLabels, GiveAFullyConnectedResultTheSizesOfItsBlobWhereChannelsCount) {
  ModelBuilder model(1, 3);
  model.add_layer(neuron_record("data", "f", 3, 4));
  model.add_layer(bn_record("f", "b", 4));
  model.add_layer(scale_record("b", "s", {1, 1, 1, 4}, false));
  model.add_layer(relu_record("s", "r"));
  model.add_layer(neuron_record("r", "g", 4, 2));
  const Texts primitives = Built(model).primitives();
  EXPECT_THAT(primitives[1], "reshape f_reshape <- f: to 1x4x1x1");
  EXPECT_THAT(primitives[2], HasSubstr("batch_norm b <- f_reshape"));
  EXPECT_THAT(primitives[3], HasSubstr("scale s <- b"));
  EXPECT_THAT(primitives[4], HasSubstr("activation r <- s"));
  EXPECT_THAT(primitives[5], HasSubstr("fully_connected g <- r"));
  EXPECT_EQ(primitives.size(), 6U);
}

TEST(GpuLabels, GiveASinglePixelsSoftmaxTheSizesOfItsBlobWhereChannelsCount) {
  ModelBuilder model(1, 3);
  model.add_layer(layer("max", {"data"}, {"s"}));
  model.add_layer(prelu_record("s", "p", 3));
  EXPECT_THAT(Built(model).primitives(),
              ElementsAre(HasSubstr("softmax s"), "reshape s_reshape <- s: to 1x3x1x1",
                          HasSubstr("activation p <- s_reshape")));
}

}  // namespace
}  // namespace ravu::test
