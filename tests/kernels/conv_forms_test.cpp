// Every form of convolution over one table of shapes: against double precision, and the same bits
// for every number of threads, on every instruction set.
#include <gtest/gtest.h>

#include <cmath>
#include <string>

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

// A layer's shape and the form that is chosen for it. Odd channel counts, maps of one to three
// pixels, strides, pads, groups, dilation, batches 1 to 9, lines longer than a block.
struct Case {
  reference::Conv conv;
  ConvForm form;
};
constexpr Case kCases[] = {
    {{1, 1, 1, 1, 1, 2, 1, 1, 0}, ConvForm::kDirect},
    {{1, 1, 1, 7, 1, 5, 3, 1, 1}, ConvForm::kDirect},
    {{2, 2, 3, 5, 1, 17, 3, 1, 1}, ConvForm::kDirect},
    {{1, 3, 1, 33, 1, 16, 1, 1, 0}, ConvForm::kDirect},
    {{3, 9, 7, 3, 1, 65, 3, 2, 1}, ConvForm::kDirect},
    {{1, 23, 20, 3, 1, 19, 7, 2, 3}, ConvForm::kDirect},
    {{1, 13, 13, 6, 2, 11, 5, 1, 2}, ConvForm::kDirect},
    {{4, 8, 8, 12, 3, 4, 1, 2, 0}, ConvForm::kDirect},
    {{9, 5, 6, 8, 1, 24, 2, 1, 0}, ConvForm::kDirect},
    {{1, 6, 6, 10, 5, 2, 1, 1, 0}, ConvForm::kDirect},
    {{1, 3, 250, 4, 1, 9, 3, 1, 1}, ConvForm::kDirect},
    {{1, 40, 30, 9, 1, 8, 3, 3, 0}, ConvForm::kDirect},
    {{2, 10, 9, 4, 1, 6, 3, 2, 1, 2}, ConvForm::kDirect},
    {{1, 7, 7, 1100, 1, 3, 3, 1, 1}, ConvForm::kDirect},
    {{1, 2, 2, 2, 1, 3, 5, 4, 3}, ConvForm::kDirect},
    {{3, 17, 13, 6, 1, 34, 1, 1, 0}, ConvForm::kDirect},
    {{2, 15, 15, 12, 2, 18, 1, 1, 0}, ConvForm::kDirect},
    {{1, 8, 8, 6, 1, 7, 1, 1, 0, 2}, ConvForm::kDirect},
    {{2, 3, 4, 700, 1, 18, 1, 1, 0}, ConvForm::kDirect},
    {{1, 5, 4, 330, 1, 3, 3, 2, 1}, ConvForm::kDirect},
    {{2, 9, 8, 600, 1, 2, 9, 1, 4}, ConvForm::kDirect},
    {{1, 8, 9, 1200, 2, 1, 9, 1, 4, 2}, ConvForm::kDirect},
    {{1, 12, 12, 16, 1, 16, 3, 1, 1}, ConvForm::kWinograd},
    {{1, 14, 14, 33, 1, 19, 3, 1, 1}, ConvForm::kWinograd},
    {{2, 13, 17, 20, 1, 40, 3, 1, 0}, ConvForm::kWinograd},
    {{3, 15, 12, 34, 2, 17, 3, 1, 1}, ConvForm::kWinograd},
    {{1, 12, 13, 16, 1, 21, 3, 1, 2}, ConvForm::kWinograd},
    {{9, 12, 12, 18, 1, 16, 3, 1, 1}, ConvForm::kWinograd},
    {{1, 12, 12, 350, 1, 17, 3, 1, 1}, ConvForm::kWinograd},
    {{1, 6, 6, 32, 1, 32, 3, 1, 1}, ConvForm::kSmallWinograd},
    {{1, 7, 7, 33, 1, 35, 3, 1, 1}, ConvForm::kSmallWinograd},
    {{2, 9, 8, 40, 1, 50, 3, 1, 0}, ConvForm::kSmallWinograd},
    {{9, 7, 7, 68, 2, 37, 3, 1, 1}, ConvForm::kSmallWinograd},
    {{1, 5, 6, 32, 1, 41, 3, 1, 2}, ConvForm::kSmallWinograd},
    {{1, 5, 5, 1, 1, 1, 3, 1, 1}, ConvForm::kDepthwise},
    {{2, 7, 9, 3, 3, 1, 3, 1, 1}, ConvForm::kDepthwise},
    {{1, 8, 8, 16, 16, 1, 3, 2, 1}, ConvForm::kDepthwise},
    {{3, 6, 11, 33, 33, 1, 3, 1, 0}, ConvForm::kDepthwise},
    {{1, 9, 9, 40, 40, 1, 5, 2, 2}, ConvForm::kDepthwise},
    {{1, 2, 1, 9, 9, 1, 3, 1, 1}, ConvForm::kDepthwise},
    {{1, 4, 23, 17, 17, 1, 3, 1, 1}, ConvForm::kDepthwise},
    {{1, 10, 12, 7, 7, 1, 3, 1, 1, 2}, ConvForm::kDepthwise},
    {{1, 3, 3, 20, 20, 1, 1, 1, 0}, ConvForm::kDepthwise},
    {{2, 4, 4, 5, 5, 1, 3, 1, 4}, ConvForm::kDepthwise},
};

kernels::ConvSizes sizes_of(const reference::Conv& c) {
  const std::size_t rows = size(reference::conv_patches(c.height, c));
  const std::size_t columns = size(reference::conv_patches(c.width, c));
  const std::size_t out_channels = size(c.kernels * c.groups);
  return {.batch = size(c.batch),
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
    sizes = sizes_of(c);
  }

  std::vector<kernels::ConvGroup> groups() const {
    std::vector<kernels::ConvGroup> result;
    for (std::size_t g = 0; g < weights.size(); ++g) {
      result.push_back(
          {weights[g].data(), bias[g].empty() ? nullptr : bias[g].data(), bias[g].size()});
    }
    return result;
  }

  std::vector<float> run(const kernels::ConvPlan& plan, std::size_t threads,
                         const kernels::ElementSteps& steps = {}) const {
    kernels::Workers workers;
    workers.set_threads(threads);
    const auto g = groups();
    // Where the output is not written it stays not a number.
    std::vector<float> output(sizes.batch * sizes.out_image, std::nanf(""));
    std::vector<float> scratch(plan.scratch_floats(sizes, g, threads));
    plan.run(sizes, input.data(), g, steps, output.data(), scratch.data(), workers);
    return output;
  }

  // The direct form, whatever the plan would choose.
  std::vector<float> run_direct(std::size_t threads,
                                const kernels::ElementSteps& steps = {}) const {
    kernels::Workers workers;
    workers.set_threads(threads);
    std::vector<float> output(sizes.batch * sizes.out_image, std::nanf(""));
    std::vector<float> scratch(kernels::packed_scratch_floats(sizes, threads));
    for (std::size_t g = 0; g < weights.size(); ++g) {
      kernels::convolve_packed(sizes, input.data() + g * sizes.group_channels,
                               kernels::pack_conv(sizes, weights[g].data(), workers),
                               bias[g].empty() ? nullptr : bias[g].data(),
                               steps.from_channel(g * sizes.kernels),
                               output.data() + g * sizes.kernels, scratch.data(), workers);
    }
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
  kernels::Workers workers;
  workers.set_threads(2);
  plan.prepare(layer.sizes, layer.groups(), workers);
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

std::string name_of(const Case& c) {
  return "case " + std::to_string(&c - kCases) + ", " + kernels::form_name(c.form);
}

TEST(ConvForms, EachAgreesWithDoublePrecision) {
  for_each_target([] {
    for (const bool has_bias : {true, false}) {
      for (const Case& c : kCases) {
        SCOPED_TRACE(name_of(c));
        const Layer layer(c.conv, has_bias);
        const auto expected = layer.expected();
        const auto values = layer.run(plan_for(layer, c.form), 1);
        std::size_t where = 0;
        if (c.form == ConvForm::kWinograd) {
          const Errors errors = errors_of(values, expected);
          EXPECT_LE(errors.largest, 1e-3);
          EXPECT_LE(errors.mean, 1e-5);
        } else {
          EXPECT_TRUE(reference::close_to(values, expected, &where)) << where;
        }
        EXPECT_TRUE(reference::close_to(layer.run_direct(1), expected, &where)) << where;
      }
    }
  });
}

TEST(ConvForms, GatherAgreesWithDoublePrecision) {
  for (const Case& c : kCases) {
    const Layer layer(c.conv);
    std::size_t where = 0;
    EXPECT_TRUE(reference::close_to(layer.run(kernels::ConvPlan(), 1), layer.expected(), &where))
        << name_of(c) << " value " << where;
  }
}

TEST(ConvForms, EveryNumberOfThreadsGivesTheSameBits) {
  for (const Case& c : kCases) {
    SCOPED_TRACE(name_of(c));
    const Layer layer(c.conv);
    const kernels::ConvPlan plan = plan_for(layer, c.form);
    const std::vector<float> alone = layer.run(plan, 1);
    const std::vector<float> direct = layer.run_direct(1);
    for (const std::size_t threads : {1, 2, 3, 4}) {
      EXPECT_EQ(layer.run(plan, threads), alone) << threads << " threads";
      EXPECT_EQ(layer.run_direct(threads), direct) << threads << " threads";
    }
  }
}

// The sums of a pixel do not depend on where it stands.
TEST(ConvForms, EveryPlaceInABatchGivesTheSameBits) {
  for (const Case& c : kCases) {
    SCOPED_TRACE(name_of(c));
    Layer alone(c.conv);
    alone.input.resize(alone.input.size() / size(c.conv.batch));
    alone.sizes.batch = 1;
    Layer several = alone;
    several.sizes.batch = 3;
    for (int copy = 0; copy < 2; ++copy) {
      several.input.insert(several.input.end(), alone.input.begin(), alone.input.end());
    }
    const auto one = alone.run(plan_for(alone, c.form), 1);
    const auto three = several.run(plan_for(several, c.form), 2);
    for (std::size_t i = 0; i < three.size(); ++i) ASSERT_EQ(three[i], one[i % one.size()]) << i;
  }
}

// What follows the sums is the same work on the same values, wherever it is done.
TEST(ConvForms, StepsGiveTheBitsOfPassesOfTheirOwn) {
  for_each_target([] {
    for (const Case& c : kCases) {
      SCOPED_TRACE(name_of(c));
      const Layer layer(c.conv);
      const std::size_t channels = layer.sizes.out_channels;
      const auto a = random_values(channels, 7);
      const auto b = random_values(channels, 8);
      using Kind = kernels::ElementStep::Kind;
      kernels::ElementSteps steps;
      steps.add(
          {.kind = Kind::kNormalise, .first = a.data(), .second = b.data(), .period = channels});
      steps.add({.kind = Kind::kScaleAndShift,
                 .first = b.data(),
                 .second = a.data(),
                 .period = channels});
      steps.add({.kind = Kind::kRelu, .slope = 0.1F});
      steps.add({.kind = Kind::kPRelu, .first = a.data(), .period = channels});
      kernels::Workers workers;
      const auto afterwards = [&](std::vector<float> values) {
        kernels::apply_steps(steps, channels, values.data(), values.data(), values.size(), workers);
        return values;
      };
      const kernels::ConvPlan gather;
      const kernels::ConvPlan plan = plan_for(layer, c.form);
      EXPECT_EQ(layer.run(plan, 1, steps), afterwards(layer.run(plan, 1)));
      EXPECT_EQ(layer.run(plan, 3, steps), afterwards(layer.run(plan, 1)));
      EXPECT_EQ(layer.run(gather, 1, steps), afterwards(layer.run(gather, 1)));
      EXPECT_EQ(layer.run_direct(2, steps), afterwards(layer.run_direct(1)));
    }
  });
}

TEST(ConvForms, TapsWithoutWeightsAreLeftOut) {
  Layer layer({1, 9, 9, 4, 1, 6, 5, 1, 2});
  // A 3 x 3 kernel spread over 5 x 5 taps.
  for (std::size_t i = 0; i < layer.weights[0].size(); ++i) {
    const std::size_t tap = i / 4 % 25;
    if (tap / 5 % 2 == 1 || tap % 5 % 2 == 1) layer.weights[0][i] = 0;
  }
  kernels::Workers workers;
  const auto packed = kernels::pack_conv(layer.sizes, layer.weights[0].data(), workers);
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

TEST(ConvForms, ScratchMemoryOfTheDirectFormIsOneBlocksInputForEachThread) {
  // 9 x 9 output pixels read 11 x 11 pixels of 4 channels.
  const Layer layer({1, 9, 9, 4, 1, 6, 3, 1, 1});
  const auto plan = plan_for(layer, ConvForm::kDirect);
  for (const std::size_t threads : {1U, 4U}) {
    EXPECT_EQ(plan.scratch_floats(layer.sizes, layer.groups(), threads), 11U * 11 * 4 * threads);
  }
  // What is read in place needs none.
  EXPECT_EQ(kernels::packed_scratch_floats(sizes_of({1, 56, 56, 256, 1, 64, 1, 1, 0}), 4), 0U);
  EXPECT_EQ(kernels::packed_scratch_floats(sizes_of({1, 56, 56, 256, 1, 512, 1, 2, 0}), 4), 0U);
  // Half a MiB at most, at any size.
  for (const int side : {10, 300, 3000}) {
    const auto floats =
        kernels::packed_scratch_floats(sizes_of({9, side, side, 64, 1, 9, 5, 2, 2}), 1);
    EXPECT_LE(floats, kernels::kMaxBlockCopy);
  }
}

// A spread kernel: a block of a few pixels reads as much as the whole image.
TEST(ConvForms, ScratchMemoryOfTheDirectFormIsOnePaddedImageWhereBlocksWouldBeTiny) {
  for (const int batch : {1, 9}) {
    for (const std::size_t threads : {1U, 4U}) {
      EXPECT_EQ(kernels::packed_scratch_floats(sizes_of({batch, 19, 19, 512, 1, 1024, 13, 1, 6}),
                                               threads),
                31U * 31 * 512);
    }
  }
}

TEST(ConvForms, ScratchMemoryOfWinogradsFormIs8MebibytesAtMost) {
  constexpr std::size_t kMost = (std::size_t{8} << 20) / sizeof(float);
  // 49 tiles of 36 products of 512 + 512 channels, and a pixel of zeros.
  EXPECT_EQ(kernels::winograd_scratch_floats(sizes_of({1, 28, 28, 512, 1, 512, 3, 1, 1})),
            36U * 49 * 1024 + 512);
  // 16 tiles of 16 products.
  EXPECT_EQ(kernels::winograd_scratch_floats(sizes_of({1, 7, 7, 512, 1, 512, 3, 1, 1})),
            16U * 16 * 1024 + 512);
  // As many tiles as fit.
  EXPECT_EQ(kernels::winograd_scratch_floats(sizes_of({9, 28, 28, 512, 1, 512, 3, 1, 1})),
            36U * 56 * 1024 + 512);
  for (const int batch : {1, 2, 9, 64}) {
    for (const int side : {7, 14, 56, 300}) {
      for (const int channels : {32, 512, 1024}) {
        const reference::Conv c{batch, side, side, channels, 1, channels, 3, 1, 1};
        EXPECT_LE(kernels::winograd_scratch_floats(sizes_of(c)), kMost);
      }
    }
  }
}

TEST(ConvForms, ScratchMemoryOfTheOtherFormsIsBounded) {
  const Layer depthwise({1, 64, 64, 8, 8, 1, 3, 1, 1});
  EXPECT_EQ(plan_for(depthwise, ConvForm::kDepthwise)
                .scratch_floats(depthwise.sizes, depthwise.groups(), 4),
            0U);
  for (const int batch : {1, 9}) {
    const auto gather =
        kernels::conv_scratch_floats(sizes_of({batch, 300, 300, 64, 1, 9, 5, 1, 2}));
    EXPECT_EQ(gather, (std::size_t{1} << 19) / 1600 * 1600);
  }
}

TEST(ConvForms, SmallLayersAndOtherKernelsAreNotForWinograd) {
  using enum kernels::WinogradSide;
  const auto side = [](const reference::Conv& c) { return kernels::winograd_side(Layer(c).sizes); };
  EXPECT_EQ(side({1, 12, 12, 16, 1, 16, 3, 1, 1}), kFour);
  EXPECT_EQ(side({1, 11, 11, 16, 1, 16, 3, 1, 1}), kNone);
  EXPECT_EQ(side({1, 11, 11, 32, 1, 32, 3, 1, 1}), kTwo);
  EXPECT_EQ(side({1, 11, 11, 31, 1, 32, 3, 1, 1}), kNone);
  EXPECT_EQ(side({1, 6, 6, 32, 1, 32, 3, 1, 1}), kTwo);
  EXPECT_EQ(side({1, 6, 5, 32, 1, 32, 3, 1, 1}), kNone);
  EXPECT_EQ(side({1, 12, 12, 15, 1, 16, 3, 1, 1}), kNone);
  EXPECT_EQ(side({1, 12, 12, 16, 1, 15, 3, 1, 1}), kNone);
  EXPECT_EQ(side({1, 30, 30, 16, 1, 16, 3, 2, 1}), kNone);
  EXPECT_EQ(side({1, 20, 20, 16, 1, 16, 5, 1, 2}), kNone);
  EXPECT_EQ(side({1, 30, 30, 16, 1, 16, 3, 1, 1, 2}), kNone);
}

}  // namespace
}  // namespace ravu::test
