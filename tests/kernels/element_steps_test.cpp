// Element steps on every instruction set: the same bits as the plain formulas, for periods and
// lengths around the vector width and the pattern's length; several steps, several threads, rows.
#include "kernels/element_steps.h"

#include <gtest/gtest.h>

#include "kernels/workers.h"
#include "support/ModelBuilder.h"
#include "support/blobs.h"
#include "support/reference.h"
#include "support/targets.h"

namespace ravu::test {
namespace {

using kernels::ElementStep;
using kernels::ElementSteps;

constexpr std::size_t kPeriods[] = {1, 2, 3, 15, 16, 17, 24, 64, 65, 256, 257, 512, 1025, 3000};
constexpr std::size_t kLengths[] = {0, 1, 2, 15, 16, 17, 63, 100, 511, 513, 2049, 5000};

std::vector<float> apply(std::initializer_list<ElementStep> list, std::size_t period,
                         const std::vector<float>& input, std::size_t threads = 1) {
  kernels::Workers workers;
  workers.set_threads(threads);
  ElementSteps steps;
  for (const ElementStep& step : list) steps.add(step);
  std::vector<float> output(input.size());
  kernels::apply_steps(steps, period, input.data(), output.data(), input.size(), workers);
  return output;
}

ElementStep relu_step(float slope) {
  return {.kind = ElementStep::Kind::kRelu, .slope = slope};
}

// Parameters for `period` channels, and each step with its expected values.
struct Parameters {
  explicit Parameters(std::size_t channels)
      : period(channels), first(random_values(channels, 2)), second(random_values(channels, 3)) {
    for (const float value : second) reciprocals.push_back(1.0F / value);
  }
  ElementStep prelu() const { return step(ElementStep::Kind::kPRelu, nullptr); }
  ElementStep normalise() const { return step(ElementStep::Kind::kNormalise, reciprocals.data()); }
  ElementStep scale() const { return step(ElementStep::Kind::kScale, nullptr); }
  ElementStep shift() const { return step(ElementStep::Kind::kScaleAndShift, second.data()); }

  std::size_t period;
  std::vector<float> first, second, reciprocals;

 private:
  ElementStep step(ElementStep::Kind kind, const float* other) const {
    return {.kind = kind, .first = first.data(), .second = other, .period = period};
  }
};

TEST(ElementSteps, GiveTheSameBitsOnEveryProcessor) {
  for_each_target([] {
    for (const std::size_t period : kPeriods) {
      const Parameters p(period);
      for (const std::size_t n : kLengths) {
        SCOPED_TRACE(std::to_string(period) + " " + std::to_string(n));
        const auto x = values_with_extremes(n, static_cast<unsigned>(n));
        EXPECT_EQ(bits_of(apply({p.prelu()}, period, x)),
                  bits_of(reference::prelu(x, p.first, period)));
        EXPECT_EQ(bits_of(apply({p.normalise()}, period, x)),
                  bits_of(reference::batch_norm(x, p.first, p.second)));
        EXPECT_EQ(bits_of(apply({p.scale()}, period, x)),
                  bits_of(reference::scale(x, p.first, {})));
        EXPECT_EQ(bits_of(apply({p.shift()}, period, x)),
                  bits_of(reference::scale(x, p.first, p.second)));
      }
    }
  });
}

TEST(ElementSteps, RectifyWithAnySlope) {
  for_each_target([] {
    for (std::size_t n = 0; n < 70; ++n) {
      const auto x = random_values(n, static_cast<unsigned>(n));
      for (const float slope : {0.0F, 0.1F, -2.0F, 3.0F}) {
        EXPECT_EQ(apply({relu_step(slope)}, 0, x), reference::relu(x, slope)) << n;
      }
    }
  });
}

TEST(ElementSteps, FollowOneAnotherInOrder) {
  for_each_target([] {
    for (const std::size_t period : {1U, 5U, 64U, 300U}) {
      const Parameters p(period);
      const auto x = values_with_extremes(2000, 1);
      auto expected = reference::batch_norm(x, p.first, p.second);
      expected = reference::scale(expected, p.first, p.second);
      expected = reference::relu(expected, 0.25F);
      expected = reference::prelu(expected, p.first, period);
      EXPECT_EQ(bits_of(apply({p.normalise(), p.shift(), relu_step(0.25F), p.prelu()}, period, x)),
                bits_of(expected));
    }
  });
}

TEST(ElementSteps, GiveTheSameBitsForEveryNumberOfThreads) {
  for (const std::size_t period : {1U, 3U, 40000U}) {
    const Parameters p(period);
    const auto x = random_values(150001, 1);
    const auto alone = apply({p.normalise(), p.shift()}, period, x);
    for (const std::size_t threads : {2, 3, 4}) {
      EXPECT_EQ(apply({p.normalise(), p.shift()}, period, x, threads), alone) << threads;
    }
  }
}

TEST(ElementSteps, WorkInPlace) {
  auto values = random_values(37, 1);
  const auto expected = reference::relu(values, 0.0F);
  ElementSteps steps;
  steps.add(relu_step(0));
  kernels::Workers workers;
  kernels::apply_steps(steps, 0, values.data(), values.data(), values.size(), workers);
  EXPECT_EQ(values, expected);
}

TEST(ElementSteps, OfRowsBeginEachRowWithTheFirstChannel) {
  for_each_target([] {
    for (const std::size_t width : {1U, 3U, 16U, 37U}) {
      const Parameters p(width + 2);
      const std::size_t rows = 5, stride = width + 3;
      auto values = random_values(rows * stride, 3);
      auto expected = values;
      for (std::size_t i = 0; i < rows * width; ++i) {
        float& value = expected[i / width * stride + i % width];
        value = value * p.first[2 + i % width] + p.second[2 + i % width];
      }
      ElementSteps steps;
      steps.add(p.shift());
      kernels::apply_steps_to_rows(steps.from_channel(2), values.data(), rows, width, stride);
      EXPECT_EQ(values, expected) << width;
    }
  });
}

}  // namespace
}  // namespace ravu::test
