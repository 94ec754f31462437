// Every form of convolution over one table of shapes: against double precision, and the same bits
// for every number of threads, on every instruction set.
#include <gtest/gtest.h>

#include <cmath>

#include "kernels/conv_plan.h"
#include "kernels/workers.h"
#include "support/ModelBuilder.h"
#include "support/reference.h"
#include "support/targets.h"

namespace ravu::test {
namespace {

using kernels::ConvForm;

std::size_t size(int n) {
  return static_cast<std::size_t>(n);
}

// Odd channel counts, maps of one to three pixels, strides, pads, groups, batches 1 to 9.
constexpr reference::Conv kDirectCases[] = {
    {1, 1, 1, 1, 1, 2, 1, 1, 0},     {1, 1, 1, 7, 1, 5, 3, 1, 1},    {2, 2, 3, 5, 1, 17, 3, 1, 1},
    {1, 3, 1, 33, 1, 16, 1, 1, 0},   {3, 9, 7, 3, 1, 65, 3, 2, 1},   {1, 23, 20, 3, 1, 19, 7, 2, 3},
    {1, 13, 13, 6, 2, 11, 5, 1, 2},  {4, 8, 8, 12, 3, 4, 1, 2, 0},   {9, 5, 6, 8, 1, 24, 2, 1, 0},
    {1, 6, 6, 10, 5, 2, 1, 1, 0},    {1, 3, 250, 4, 1, 9, 3, 1, 1},  {1, 40, 30, 9, 1, 8, 3, 3, 0},
    {2, 10, 9, 4, 1, 6, 3, 2, 1, 2}, {1, 7, 7, 1100, 1, 3, 3, 1, 1}, {1, 2, 2, 2, 1, 3, 5, 4, 3},
};
constexpr reference::Conv kWinogradCases[] = {
    {1, 12, 12, 16, 1, 16, 3, 1, 1}, {1, 14, 14, 33, 1, 19, 3, 1, 1},
    {2, 13, 17, 20, 1, 40, 3, 1, 0}, {3, 15, 12, 34, 2, 17, 3, 1, 1},
    {1, 12, 13, 16, 1, 21, 3, 1, 2}, {9, 12, 12, 18, 1, 16, 3, 1, 1},
};
constexpr reference::Conv kDepthwiseCases[] = {
    {1, 5, 5, 1, 1, 1, 3, 1, 1},      {2, 7, 9, 3, 3, 1, 3, 1, 1},   {1, 8, 8, 16, 16, 1, 3, 2, 1},
    {3, 6, 11, 33, 33, 1, 3, 1, 0},   {1, 9, 9, 40, 40, 1, 5, 2, 2}, {1, 2, 1, 9, 9, 1, 3, 1, 1},
    {1, 10, 12, 7, 7, 1, 3, 1, 1, 2}, {1, 3, 3, 20, 20, 1, 1, 1, 0}, {2, 4, 4, 5, 5, 1, 3, 1, 4},
};

// A layer with random values, and what running it takes.
struct Layer {
  explicit Layer(const reference::Conv& conv, bool has_bias = true) : c(conv) {
    input = random_values(size(c.batch * c.height * c.width * c.channels), 5);
    const std::size_t patch = size(c.kernel * c.kernel * (c.channels / c.groups));
    for (int g = 0; g < c.groups; ++g) {
      weights.push_back(random_values(patch * size(c.kernels), 20 + static_cast<unsigned>(g)));
      bias.push_back(has_bias ? random_values(size(c.kernels), 300 + static_cast<unsigned>(g))
                              : std::vector<float>{});
    }
    const std::size_t rows = size(reference::conv_patches(c.height, c));
    const std::size_t columns = size(reference::conv_patches(c.width, c));
    const std::size_t out_channels = size(c.kernels * c.groups);
    sizes = {.batch = size(c.batch),
             .height = size(c.height),
             .width = size(c.width),
             .channels = size(c.channels),
             .group_channels = size(c.channels / c.groups),
             .rows = rows,
             .columns = columns,
             .kernel_h = size(c.kernel),
             .kernel_w = size(c.kernel),
             .stride_h = size(c.stride),
             .stride_w = size(c.stride),
             .pad_h = size(c.pad),
             .pad_w = size(c.pad),
             .shift_h = size(c.dilation - 1),
             .shift_w = size(c.dilation - 1),
             .kernels = size(c.kernels),
             .out_channels = out_channels,
             .out_image = rows * columns * out_channels};
  }

  std::vector<kernels::ConvGroup> groups() const {
    std::vector<kernels::ConvGroup> result;
    for (std::size_t g = 0; g < weights.size(); ++g) {
      result.push_back(
          {weights[g].data(), bias[g].empty() ? nullptr : bias[g].data(), bias[g].size()});
    }
    return result;
  }

  std::vector<float> run(const kernels::ConvPlan& plan, std::size_t threads) const {
    kernels::Workers workers;
    workers.set_threads(threads);
    const auto g = groups();
    // Where the output is not written it stays not a number.
    std::vector<float> output(sizes.batch * sizes.out_image, std::nanf(""));
    std::vector<float> scratch(plan.scratch_floats(sizes, g, threads));
    plan.run(sizes, input.data(), g, output.data(), scratch.data(), workers);
    return output;
  }

  reference::Sums expected() const { return reference::convolve(c, input, weights, bias); }

  reference::Conv c;
  kernels::ConvSizes sizes;
  std::vector<float> input;
  std::vector<std::vector<float>> weights, bias;
};

kernels::ConvPlan plan_for(const Layer& layer, ConvForm wanted) {
  kernels::ConvPlan plan;
  plan.prepare(layer.sizes, layer.groups());
  EXPECT_EQ(plan.form(layer.sizes, layer.groups()), wanted);
  return plan;
}

// The largest error and the root mean square of the errors, in parts of the sums' own.
struct Errors {
  double largest, mean;
};

Errors errors_of(const std::vector<float>& values, const reference::Sums& sums) {
  double largest = 0;
  double squares = 0;
  double power = 0;
  for (std::size_t i = 0; i < values.size(); ++i) {
    const double error = std::abs(values[i] - sums.values[i]);
    largest = error <= largest ? largest : error;  // not a number becomes the largest
    squares += error * error;
    power += sums.values[i] * sums.values[i];
  }
  const double rms = std::sqrt(power / static_cast<double>(values.size()));
  return {largest / rms, std::sqrt(squares / static_cast<double>(values.size())) / rms};
}

TEST(ConvForms, DirectAgreesWithDoublePrecision) {
  for_each_target([] {
    for (const bool has_bias : {true, false}) {
      for (const reference::Conv& c : kDirectCases) {
        const Layer layer(c, has_bias);
        std::size_t where = 0;
        EXPECT_TRUE(reference::close_to(layer.run(plan_for(layer, ConvForm::kDirect), 1),
                                        layer.expected(), &where))
            << "case " << &c - kDirectCases << " value " << where;
      }
    }
  });
}

TEST(ConvForms, GatherAgreesWithDoublePrecision) {
  for (const reference::Conv& c : kDirectCases) {
    const Layer layer(c);
    std::size_t where = 0;
    EXPECT_TRUE(reference::close_to(layer.run(kernels::ConvPlan(), 1), layer.expected(), &where))
        << "case " << &c - kDirectCases << " value " << where;
  }
}

TEST(ConvForms, DepthwiseAgreesWithDoublePrecision) {
  for_each_target([] {
    for (const bool has_bias : {true, false}) {
      for (const reference::Conv& c : kDepthwiseCases) {
        const Layer layer(c, has_bias);
        std::size_t where = 0;
        EXPECT_TRUE(reference::close_to(layer.run(plan_for(layer, ConvForm::kDepthwise), 1),
                                        layer.expected(), &where))
            << "case " << &c - kDepthwiseCases << " value " << where;
      }
    }
  });
}

TEST(ConvForms, WinogradStaysWithinItsWiderBounds) {
  for_each_target([] {
    for (const bool has_bias : {true, false}) {
      for (const reference::Conv& c : kWinogradCases) {
        const Layer layer(c, has_bias);
        const Errors errors =
            errors_of(layer.run(plan_for(layer, ConvForm::kWinograd), 1), layer.expected());
        EXPECT_LE(errors.largest, 1e-3) << "case " << &c - kWinogradCases;
        EXPECT_LE(errors.mean, 1e-5) << "case " << &c - kWinogradCases;
      }
    }
  });
}

TEST(ConvForms, EveryNumberOfThreadsGivesTheSameBits) {
  const auto check = [](const reference::Conv& c, ConvForm form) {
    const Layer layer(c);
    const kernels::ConvPlan plan = plan_for(layer, form);
    const std::vector<float> alone = layer.run(plan, 1);
    for (const std::size_t threads : {1, 2, 3, 4}) {
      EXPECT_EQ(layer.run(plan, threads), alone) << threads << " threads";
    }
  };
  for (const reference::Conv& c : kDirectCases) check(c, ConvForm::kDirect);
  for (const reference::Conv& c : kWinogradCases) check(c, ConvForm::kWinograd);
  for (const reference::Conv& c : kDepthwiseCases) check(c, ConvForm::kDepthwise);
}

TEST(ConvForms, TapsWithoutWeightsAreLeftOut) {
  Layer layer({1, 9, 9, 4, 1, 6, 5, 1, 2});
  // A 3 x 3 kernel spread over 5 x 5 taps.
  for (std::size_t i = 0; i < layer.weights[0].size(); ++i) {
    const std::size_t tap = i / 4 % 25;
    if (tap / 5 % 2 == 1 || tap % 5 % 2 == 1) layer.weights[0][i] = 0;
  }
  const auto packed = kernels::pack_conv(layer.sizes, layer.weights[0].data());
  EXPECT_EQ(packed.depth, 9U * 4U);
  std::size_t where = 0;
  EXPECT_TRUE(reference::close_to(layer.run(plan_for(layer, ConvForm::kDirect), 2),
                                  layer.expected(), &where))
      << where;
}

TEST(ConvForms, WithoutAnyWeightTheBiasIsLeft) {
  Layer layer({1, 3, 3, 2, 1, 5, 3, 1, 1});
  std::fill(layer.weights[0].begin(), layer.weights[0].end(), 0.0F);
  std::size_t where = 0;
  EXPECT_TRUE(reference::close_to(layer.run(plan_for(layer, ConvForm::kDirect), 1),
                                  layer.expected(), &where))
      << where;
}

TEST(ConvForms, ABiasOfAnotherLengthIsGathered) {
  Layer layer({1, 4, 4, 2, 1, 4, 3, 1, 1});
  layer.bias[0].resize(3);
  std::size_t where = 0;
  EXPECT_TRUE(reference::close_to(layer.run(plan_for(layer, ConvForm::kGather), 1),
                                  layer.expected(), &where))
      << where;
}

TEST(ConvForms, SizesThatWereNotPreparedForAreGathered) {
  const Layer layer({1, 9, 9, 4, 1, 6, 3, 1, 1});
  const kernels::ConvPlan plan = plan_for(layer, ConvForm::kDirect);
  const Layer other({1, 9, 9, 5, 1, 6, 3, 1, 1});
  EXPECT_EQ(plan.form(other.sizes, other.groups()), ConvForm::kGather);
  EXPECT_FALSE(plan.suits(other.sizes, other.groups()));
  const Layer larger({3, 30, 20, 4, 1, 6, 3, 1, 1});
  EXPECT_TRUE(plan.suits(larger.sizes, larger.groups()));
}

TEST(ConvForms, ScratchMemoryDoesNotGrowWithTheLayer) {
  const auto scratch = [](const reference::Conv& c, ConvForm form, std::size_t threads) {
    const Layer layer(c);
    return plan_for(layer, form).scratch_floats(layer.sizes, layer.groups(), threads) *
           sizeof(float);
  };
  // Of the direct form: half a MiB for each thread at most.
  EXPECT_LE(scratch({1, 300, 300, 8, 1, 2, 7, 2, 3}, ConvForm::kDirect, 1), std::size_t{1} << 19);
  EXPECT_EQ(scratch({1, 9, 9, 4, 1, 6, 3, 1, 1}, ConvForm::kDirect, 4),
            4 * scratch({1, 9, 9, 4, 1, 6, 3, 1, 1}, ConvForm::kDirect, 1));
  EXPECT_LE(scratch({9, 80, 80, 32, 1, 32, 3, 1, 1}, ConvForm::kWinograd, 4), std::size_t{5} << 20);
  EXPECT_EQ(scratch({1, 64, 64, 8, 8, 1, 3, 1, 1}, ConvForm::kDepthwise, 4), 0U);
}

TEST(ConvForms, SmallLayersAndOtherKernelsAreNotForWinograd) {
  const auto pays = [](const reference::Conv& c) { return kernels::winograd_pays(Layer(c).sizes); };
  EXPECT_TRUE(pays({1, 12, 12, 16, 1, 16, 3, 1, 1}));
  EXPECT_FALSE(pays({1, 11, 11, 16, 1, 16, 3, 1, 1}));
  EXPECT_FALSE(pays({1, 12, 12, 15, 1, 16, 3, 1, 1}));
  EXPECT_FALSE(pays({1, 12, 12, 16, 1, 15, 3, 1, 1}));
  EXPECT_FALSE(pays({1, 30, 30, 16, 1, 16, 3, 2, 1}));
  EXPECT_FALSE(pays({1, 20, 20, 16, 1, 16, 5, 1, 2}));
  EXPECT_FALSE(pays({1, 30, 30, 16, 1, 16, 3, 1, 1, 2}));
}

}  // namespace
}  // namespace ravu::test
