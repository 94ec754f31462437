// The closed list of what the GPU run modes compute otherwise than the processor; each test shows
// both values. docs/run-modes.md has the list.
#include <gtest/gtest.h>

#include <cmath>

#include "gpu/modes.h"
#include "graph/cldnn_handles.h"
#include "support/records.h"

namespace ravu::test {
namespace {

using Floats = std::vector<float>;

struct Both {
  Floats processor;
  Floats gpu;
};

Both both(const ModelBuilder& model, Dims input, const Floats& values) {
  return {result_in(RAVU_MODE_CPU, model.bytes(), input, values).values,
          result_in(RAVU_MODE_GPU, model.bytes(), input, values).values};
}

Both both(const Bytes& record, int size, int channels, const Floats& values) {
  const auto side = static_cast<std::uint32_t>(size);
  return both(ModelBuilder(size, channels).add_layer(record),
              {1, side, side, static_cast<std::uint32_t>(channels)}, values);
}

void expect_near(const Floats& found, const Floats& expected) {
  ASSERT_EQ(found.size(), expected.size());
  for (std::size_t i = 0; i < found.size(); ++i) {
    EXPECT_NEAR(found[i], expected[i], 1e-4) << "value " << i;
  }
}

TEST(GpuDiffers, L2NormalisationScalesChannelsWhereTheProcessorScalesBlocks) {
  const Both found =
      both(norm_record("data", "n", false, false, {10, 100}), 2, 2, {3, 4, 3, 4, 3, 4, 3, 4});
  expect_near(found.gpu, {6, 80, 6, 80, 6, 80, 6, 80});
  expect_near(found.processor, {6, 8, 6, 8, 60, 80, 60, 80});
}

TEST(GpuDiffers, L2NormalisationAcrossTheImageWritesItsOutput) {
  const Both found = both(norm_record("data", "n", true, true, {10}), 1, 2, {3, 4});
  expect_near(found.gpu, {6, 8});
  expect_near(found.processor, {0, 0});
}

TEST(GpuDiffers, ASecondForwardRunNeitherAccumulatesNormsNorSubtractsTheMeanAgain) {
  ModelBuilder model(1, 2);
  model.set("data_mean", tensor({1, 1, 1, 2}, {1, 2}));
  model.add_layer(bn_record("data", "b", 2));
  model.add_layer(norm_record("b", "n", false, true, {10}));
  const auto runs = [&](std::uint32_t mode) {
    const Handle handle(model);
    ravu_setup_runEngine(handle, mode);
    const Floats pixel{7, 9};
    ravu_set_InputData_byRawData_float(handle, pixel.data(), 1, 1, 1, 2);
    ravu_forward(handle, mode);
    const Floats first = values_of(ravu_getOutput_blob(handle, 0));
    ravu_forward(handle, mode);
    return std::pair(first, values_of(ravu_getOutput_blob(handle, 0)));
  };
  const auto gpu = runs(RAVU_MODE_GPU);
  EXPECT_EQ(gpu.first, gpu.second);
  const auto processor = runs(RAVU_MODE_CPU);
  expect_near(gpu.first, processor.first);
  EXPECT_NE(processor.first, processor.second);
}

TEST(GpuDiffers, ElementWiseProductsAndMaximaAreComputed) {
  for (const char* operation : {"prod", "max"}) {
    ModelBuilder model(1, 2);
    model.add_layer(power_record("data", "twice", 1, 2, 0));
    model.add_layer(eltwise_record({"data", "twice"}, "e", operation));
    const Both found = both(model, {1, 1, 1, 2}, {3, -4});
    expect_near(found.gpu, *operation == 'p' ? Floats{18, 32} : Floats{6, -4});
    expect_near(found.processor, {0, 0});
  }
}

TEST(GpuDiffers, PoolingIgnoresItsPadding) {
  const Floats image{1, 2, 3, 4, 5, 6, 7, 8, 9};
  const Both found = both(pool_record("data", "p", "max", 3, 1, /*padding=*/1), 3, 1, image);
  expect_near(found.processor, {5, 6, 6, 8, 9, 9, 8, 9, 9});
  // One window fits; the rest of the Blob stays as it was.
  expect_near(found.gpu, {9, 0, 0, 0, 0, 0, 0, 0, 0});
}

TEST(GpuDiffers, PowerMultipliesAndNeitherShiftsNorRaises) {
  const Both found = both(power_record("data", "p", 2, 3, 5), 1, 1, {4});
  expect_near(found.gpu, {12});
  expect_near(found.processor, {16});
}

TEST(GpuDiffers, PowerWithoutAnEffectCopies) {
  const Both found = both(power_record("data", "p", 1, 1, 0), 1, 1, {4});
  expect_near(found.gpu, {4});
  expect_near(found.processor, {0});
}

TEST(GpuDiffers, AnEvenResponseWindowIsOneChannelShorterAtItsEnd) {
  const Bytes record = layer("normalize", {"data"}, {"l"})
                           .add("size", 2)
                           .add("alpha", 2.0F)
                           .add("beta", 1.0F)
                           .add("k", 1.0F);
  const Both found = both(record, 1, 3, {1, 2, 3});
  expect_near(found.gpu, {1 / 2.0F, 2 / 6.0F, 3 / 14.0F});
  const Floats processor{1 / 6.0F, 2 / 15.0F, 3 / 14.0F};
  for (std::size_t i = 0; i < 3; ++i) EXPECT_NEAR(found.processor[i], processor[i], 1e-3);
}

TEST(GpuDiffers, ASlopeAboveOneAppliesToNegativeValuesAlone) {
  const Both found = both(relu_record("data", "r", 2), 1, 2, {3, -3});
  expect_near(found.gpu, {3, -6});
  expect_near(found.processor, {6, -3});
}

TEST(GpuDiffers, PriorSizesKeepTheirFractions) {
  const Both found =
      both(prior_record({"data", "data"}, "p", {.min_sizes = {1.5F}}), 4, 1, Floats(16, 0.0F));
  EXPECT_NEAR(found.gpu[2] - found.gpu[0], 1.5 / 4, 1e-4);
  EXPECT_NEAR(found.processor[2] - found.processor[0], 1.0 / 4, 1e-4);
}

TEST(GpuDiffers, SeveralVariancesAreGivenToEveryBox) {
  const PriorKeys keys{.min_sizes = {1, 2}, .variances = {0.1F, 0.2F, 0.3F, 0.4F}, .num_priors = 2};
  const Both found = both(prior_record({"data", "data"}, "p", keys), 1, 1, {0});
  expect_near(Floats(found.gpu.begin() + 8, found.gpu.end()),
              {0.1F, 0.2F, 0.3F, 0.4F, 0.1F, 0.2F, 0.3F, 0.4F});
  expect_near(Floats(found.processor.begin() + 8, found.processor.end()),
              {0.1F, 0.2F, 0.3F, 0.4F, 0, 0, 0, 0});
}

TEST(GpuDiffers, ReciprocalRatiosAreAddedWhereTheNumberOfPriorsCountsThem) {
  const PriorKeys keys{.min_sizes = {2}, .ratios = {4}, .num_priors = 3, .flip = true};
  const Both found = both(prior_record({"data", "data"}, "p", keys), 4, 1, Floats(16, 0.0F));
  // The third box of the first cell is half as wide as the square.
  EXPECT_NEAR(found.gpu[10] - found.gpu[8], 0.25, 1e-4);
  // The processor has two boxes, so this is the first one of the next cell.
  EXPECT_NEAR(found.processor[10] - found.processor[8], 0.5, 1e-4);
}

TEST(GpuDiffers, PermutePermutesWhateverTheFlagSays) {
  const Both found =
      both(permute_record("data", "p", /*need_permute=*/false, {1, 0, 2, 3}), 2, 1, {1, 2, 3, 4});
  expect_near(found.gpu, {1, 3, 2, 4});
  expect_near(found.processor, {1, 2, 3, 4});
}

TEST(GpuDiffers, APermutedBatchIsPartOfThePermutation) {
  ModelBuilder model(1, 2);
  model.add_layer(permute_record("data", "p", /*need_permute=*/true, {0, 1, 3, 2}));
  const Both found = both(model, {2, 1, 1, 2}, {1, 2, 3, 4});
  expect_near(found.gpu, {1, 3, 2, 4});
  expect_near(found.processor, {1, 2, 3, 4});
}

// Taps 1 and 2 of the row, spread by the dilation or shifted by it.
TEST(GpuDiffers, DilationSpreadsTheKernelWhereTheProcessorShiftsIt) {
  const Bytes record =
      layer("conv", {"data"}, {"c"})
          .add("spec", Dictionary().add("num_kernels", 1).add("stride", 1).add("ksize", 2))
          .add("padding", 0)
          .add("dilation_h", 2)
          .add("dilation_w", 2)
          .add("has_bias", 0)
          .add("kernels", tensor({1, 2, 2, 1}, {1, 10, 100, 1000}));
  const Both found = both(record, 4, 1, {1, 2, 3, 4, 5, 6, 7, 8, 9, 1, 2, 3, 4, 5, 6, 7});
  ASSERT_EQ(found.gpu.size(), 1U);
  EXPECT_EQ(found.processor, (Floats{6 + 70 + 100 + 2000}));
  EXPECT_EQ(found.gpu, (Floats{1 + 30 + 900 + 2000}));
}

TEST(GpuDiffers, BatchNormalisationAddsItsEpsilon) {
  const Bytes record = layer("bn", {"data"}, {"b"})
                           .add("eps", 16.0F)
                           .add("mean", tensor({1}, {1}))
                           .add("var", tensor({1}, {3}));
  const Both found = both(record, 1, 1, {16});
  expect_near(found.gpu, {3});
  expect_near(found.processor, {5});
}

// clDNN takes the variance, the divisor's square, in which a sign is lost and extremes have no
// room.
TEST(GpuDiffers, BatchNormalisationDividesByTheSizeOfItsDivisorAlone) {
  const auto normalised = [](float divisor) {
    const Bytes record = layer("bn", {"data"}, {"b"})
                             .add("mean", tensor({1}, {0}))
                             .add("var", tensor({1}, {divisor}));
    return both(record, 1, 1, {6});
  };
  expect_near(normalised(-2).gpu, {3});
  expect_near(normalised(-2).processor, {-3});
  EXPECT_TRUE(std::isinf(normalised(1e-25F).gpu[0]));
  EXPECT_FLOAT_EQ(normalised(1e-25F).processor[0], 6e25F);
  EXPECT_EQ(normalised(2e19F).gpu[0], 0);
  EXPECT_FLOAT_EQ(normalised(2e19F).processor[0], 3e-19F);
}

TEST(GpuDiffers, ACropByOnePixelIsACrop) {
  ModelBuilder model(2, 1);
  model.set("image_size", integer(1));
  model.add_layer(bn_record("data", "b", 1));
  const Both found = both(model, {1, 2, 2, 1}, {5, 6, 7, 8});
  const Both zeros = both(model, {1, 2, 2, 1}, {0, 0, 0, 0});
  EXPECT_EQ(found.processor, zeros.processor);
  EXPECT_NE(found.gpu, zeros.gpu);
}

TEST(GpuDiffers, AGroupedFileWithTheTotalOfKernelsRuns) {
  const Bytes spec = Dictionary().add("num_kernels", 2).add("stride", 1).add("ksize", 1);
  const auto set = [&](float weight) {
    return Dictionary()
        .add("spec", spec)
        .add("padding", 0)
        .add("has_bias", 0)
        .add("kernels", tensor({1, 1, 1, 1}, {weight}))
        .bytes();
  };
  const Bytes record =
      layer("gconv", {"data"}, {"c"}).add("layers_count", 2).add("layers", list({set(2), set(3)}));
  const Both found = both(record, 1, 2, {5, 7});
  expect_near(found.gpu, {10, 21, 0, 0});
  expect_near(found.processor, {0, 0, 0, 0});
}

// "a" stands before "z", so the last layer's Blob holds the other one's values.
TEST(GpuDiffers, OfSeveralOutputsTheFirstNameIsTakenForTheLastBlob) {
  ModelBuilder model(1, 1);
  model.add_layer(power_record("data", "a", 1, 2, 0));
  model.add_layer(power_record("data", "z", 1, 3, 0));
  const Both found = both(model, {1, 1, 1, 1}, {1});
  expect_near(found.gpu, {2});
  expect_near(found.processor, {3});
}

TEST(GpuDiffers, OnlyTheLastBlobIsRefreshed) {
  ModelBuilder model(1, 1);
  model.add_layer(power_record("data", "a", 1, 2, 0));
  model.add_layer(power_record("a", "b", 1, 3, 0));
  const Handle handle(model);
  ravu_setup_runEngine(handle, RAVU_MODE_GPU);
  const float one = 1;
  ravu_set_InputData_byRawData_float(handle, &one, 1, 1, 1, 1);
  ravu_forward(handle, RAVU_MODE_GPU);
  EXPECT_EQ(values_of(ravu_hidden_blob(handle, 1)), (Floats{6}));
  EXPECT_EQ(values_of(ravu_hidden_blob(handle, 0)), (Floats{}));
}

TEST(GpuDiffers, AnotherInputShapeNeedsAnotherSetUp) {
  const Handle handle(ModelBuilder(2, 1).add_layer(bn_record("data", "b", 1)));
  ravu_setup_runEngine(handle, RAVU_MODE_GPU_KEEP);
  const Floats pixels(9, 1.0F);
  ravu_set_InputData_byRawData_float(handle, pixels.data(), 1, 3, 3, 1);
  try {
    ravu_forward(handle, RAVU_MODE_GPU_KEEP);
    ADD_FAILURE() << "nothing was raised";
  } catch (const std::runtime_error& error) {
    EXPECT_EQ(std::string(error.what()).rfind("set network input failed: ", 0), 0U) << error.what();
  }
  EXPECT_TRUE(ravu_setup_runEngine(handle, RAVU_MODE_GPU_KEEP));
  ravu_forward(handle, RAVU_MODE_GPU_KEEP);
  EXPECT_NE(values_of(ravu_getOutput_blob(handle, 0)), Floats(9, 0.0F));
}

// The text of the refusal; the processor runs the same model.
std::string refusal(const ModelBuilder& model, Dims input) {
  const Floats values(std::size_t{input[0]} * input[1] * input[2] * input[3], 1.0F);
  EXPECT_NO_THROW(result_in(RAVU_MODE_CPU, model.bytes(), input, values));
  try {
    result_in(RAVU_MODE_GPU, model.bytes(), input, values);
  } catch (const cldnn::error& error) {
    return error.what();
  }
  return "nothing was refused";
}

std::string refusal(const Bytes& record) {
  return refusal(ModelBuilder(2, 3).add_layer(record), {1, 2, 2, 3});
}

bool says(const std::string& text, const std::string& part) {
  return text.find(part) != std::string::npos;
}

TEST(GpuDiffers, PriorBoxesThatClDnnDoesNotTakeAreRefused) {
  const auto prior = [](const PriorKeys& keys) {
    return refusal(prior_record({"data", "data"}, "p", keys));
  };
  const std::string too_small = prior({.min_sizes = {2}, .max_sizes = {2}, .num_priors = 2});
  EXPECT_TRUE(says(too_small, "a max size is not greater than its min size")) << too_small;
  const std::string no_size = prior({.min_sizes = {0}});
  EXPECT_TRUE(says(no_size, "a min size is not positive")) << no_size;
  const std::string no_variance = prior({.variances = {0}});
  EXPECT_TRUE(says(no_variance, "a variance is not positive")) << no_variance;
}

TEST(GpuDiffers, DetectionsThatClDnnHasNoFormForAreRefused) {
  const auto detections = [](const DetectionKeys& keys, int locations, int confidences) {
    ModelBuilder model(2, 3);
    model.add_layer(conv_record("data", "loc", {.inputs = 3, .kernels = locations, .ksize = 1}));
    model.add_layer(conv_record("data", "conf", {.inputs = 3, .kernels = confidences, .ksize = 1}));
    model.add_layer(prior_record({"data", "data"}, "p", {}));
    model.add_layer(detection_record({"loc", "conf", "p"}, "d", keys));
    return refusal(model, {1, 2, 2, 3});
  };
  EXPECT_NE(detections({.keep_top_k = -1}, 4, 2), "nothing was refused");
  EXPECT_NE(detections({.share = true, .location_classes = 2}, 8, 2), "nothing was refused");
  EXPECT_NE(detections({}, 4, 3), "nothing was refused") << "more confidences than classes";
  EXPECT_NE(detections({}, 5, 2), "nothing was refused") << "more locations than boxes";
  EXPECT_EQ(detections({}, 4, 2), "nothing was refused");
}

TEST(GpuDiffers, AFullyConnectedLayerOfFewerFeaturesThanItsInputIsRefused) {
  const std::string text = refusal(neuron_record("data", "f", 6, 2));
  EXPECT_TRUE(says(text, "do not fit an input")) << text;
}

TEST(GpuDiffers, LayersThatAskForMoreThanClDnnGivesAreRefusedWhenTheNetworkIsSetUp) {
  const std::string uneven = refusal(layer("bn", {"data"}, {"b"})
                                         .add("mean", tensor({1, 1, 1, 2}, {0, 0}))
                                         .add("var", tensor({1, 1, 1, 2}, {1, 1})));
  EXPECT_TRUE(says(uneven, "do not repeat")) << uneven;
  EXPECT_TRUE(says(refusal(scale_record("data", "s", {1, 1, 1, 5}, false)), "do not repeat"));
  EXPECT_TRUE(
      says(refusal(reshape_record("data", "r", {2, 2, 1, 3})), "must not change the batch"));
}

}  // namespace
}  // namespace ravu::test
