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

}  // namespace
}  // namespace ravu::test
