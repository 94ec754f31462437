// Channel-wise kernels on every instruction set: the same bits as the plain formula, for periods
// and lengths around the vector width and the pattern's length.
#include <gtest/gtest.h>

#include "kernels/kernels.h"
#include "support/blobs.h"
#include "support/reference.h"
#include "support/targets.h"

namespace ravu::test {
namespace {

constexpr std::size_t kPeriods[] = {1, 2, 3, 15, 16, 17, 24, 64, 65, 1000, 1024, 1025, 3000};
constexpr std::size_t kLengths[] = {0, 1, 2, 15, 16, 17, 63, 100, 2047, 2048, 2049, 5000};

TEST(PReluKernel, GivesTheSameBitsOnEveryProcessor) {
  for_each_target([] {
    for (const std::size_t period : kPeriods) {
      for (const std::size_t n : kLengths) {
        const auto input = values_with_extremes(n, static_cast<unsigned>(n));
        const auto slopes = random_values(period, 2);
        std::vector<float> output(n);
        kernels::prelu(input.data(), output.data(), n, slopes.data(), period);
        EXPECT_EQ(bits_of(output), bits_of(reference::prelu(input, slopes, period)))
            << period << " " << n;
      }
    }
  });
}

TEST(NormaliseKernel, GivesTheSameBitsOnEveryProcessor) {
  for_each_target([] {
    for (const std::size_t period : kPeriods) {
      for (const std::size_t n : kLengths) {
        const auto input = values_with_extremes(n, static_cast<unsigned>(n));
        const auto mean = random_values(period, 2);
        const auto divisor = random_values(period, 3);
        std::vector<float> factors, output(n);
        for (const float d : divisor) factors.push_back(1.0F / d);
        kernels::normalise(input.data(), output.data(), n, mean.data(), factors.data(), period);
        EXPECT_EQ(bits_of(output), bits_of(reference::batch_norm(input, mean, divisor)))
            << period << " " << n;
      }
    }
  });
}

TEST(ScaleKernels, GiveTheSameBitsOnEveryProcessor) {
  for_each_target([] {
    for (const std::size_t period : kPeriods) {
      for (const std::size_t n : kLengths) {
        const auto input = values_with_extremes(n, static_cast<unsigned>(n));
        const auto scales = random_values(period, 2);
        const auto shifts = random_values(period, 3);
        std::vector<float> output(n);
        kernels::scale(input.data(), output.data(), n, scales.data(), period);
        EXPECT_EQ(bits_of(output), bits_of(reference::scale(input, scales, {})))
            << period << " " << n;
        kernels::scale_and_shift(input.data(), output.data(), n, scales.data(), shifts.data(),
                                 period);
        EXPECT_EQ(bits_of(output), bits_of(reference::scale(input, scales, shifts)))
            << period << " " << n;
      }
    }
  });
}

}  // namespace
}  // namespace ravu::test
