// Element-wise kernels on every instruction set: the same bits as the plain formula.
#include <gtest/gtest.h>

#include "kernels/kernels.h"
#include "kernels/workers.h"
#include "support/blobs.h"
#include "support/reference.h"
#include "support/targets.h"

namespace ravu::test {
namespace {

TEST(MultiplyAndAddKernel, RoundsTwiceOnEveryProcessor) {
  for_each_target([] {
    for (std::size_t n = 0; n < 70; ++n) {
      const auto input = values_with_extremes(n, static_cast<unsigned>(n));
      std::vector<float> output(n), expected(n);
      for (std::size_t i = 0; i < n; ++i) {
        const float product = input[i] * 0.3F;
        expected[i] = product + 0.7F;
      }
      kernels::multiply_and_add(input.data(), output.data(), n, 0.3F, 0.7F);
      EXPECT_EQ(bits_of(output), bits_of(expected)) << n;
      kernels::multiply_and_add(input.data(), output.data(), n, 1.0F, -0.0F);
      EXPECT_EQ(bits_of(output), bits_of(input)) << n;
    }
  });
}

std::vector<float> weighted_sum(const std::vector<std::vector<float>>& inputs,
                                const std::vector<float>& coefficients,
                                const kernels::ElementSteps& steps, std::size_t n,
                                std::size_t threads) {
  kernels::Workers workers;
  workers.set_threads(threads);
  std::vector<const float*> pointers;
  for (const auto& input : inputs) pointers.push_back(input.data());
  std::vector<float> output(n, 7);
  kernels::weighted_sum(pointers.data(), coefficients.data(), inputs.size(), steps, output.data(),
                        n, workers);
  return output;
}

TEST(WeightedSumKernel, KeepsTheOrderOfTheTermsOnEveryProcessor) {
  for_each_target([] {
    kernels::ElementSteps rectify;
    rectify.add({.slope = 0.5F});
    for (std::size_t n = 0; n < 70; ++n) {
      const std::size_t terms = n % 5;
      std::vector<std::vector<float>> inputs;
      for (std::size_t j = 0; j < terms; ++j) {
        inputs.push_back(values_with_extremes(n, static_cast<unsigned>(n * 5 + j)));
      }
      const auto coefficients = random_values(terms, 4);
      const auto expected = reference::weighted_sum(inputs, coefficients, n);
      EXPECT_EQ(bits_of(weighted_sum(inputs, coefficients, {}, n, 1)), bits_of(expected)) << n;
      EXPECT_EQ(bits_of(weighted_sum(inputs, coefficients, rectify, n, 1)),
                bits_of(reference::relu(expected, 0.5F)))
          << n;
    }
  });
}

TEST(WeightedSumKernel, GivesTheSameBitsForEveryNumberOfThreads) {
  constexpr std::size_t kCount = 140001;
  const std::vector<std::vector<float>> inputs{random_values(kCount, 1), random_values(kCount, 2)};
  const std::vector<float> coefficients{1, 0.3F};
  const auto alone = weighted_sum(inputs, coefficients, {}, kCount, 1);
  for (const std::size_t threads : {2, 3, 4}) {
    EXPECT_EQ(weighted_sum(inputs, coefficients, {}, kCount, threads), alone) << threads;
  }
}

TEST(AddBiasKernel, RepeatsTheBiasOverRowsThatStandApart) {
  for_each_target([] {
    for (const std::size_t width : {1U, 3U, 16U, 37U}) {
      for (const std::size_t bias_count : {1U, 2U, 16U, 37U, 41U, 200U}) {
        const std::size_t rows = 5, stride = width + 3, phase = bias_count / 2;
        const auto bias = random_values(bias_count, 2);
        auto values = random_values(rows * stride, 3);
        auto expected = values;
        for (std::size_t i = 0; i < rows * width; ++i) {
          expected[i / width * stride + i % width] += bias[(phase + i) % bias_count];
        }
        kernels::add_bias(values.data(), rows, width, stride, bias.data(), bias_count, phase);
        EXPECT_EQ(values, expected) << width << " " << bias_count;
      }
    }
  });
}

}  // namespace
}  // namespace ravu::test
