// The L2 normalisation kernels on every instruction set.
#include <gtest/gtest.h>

#include "kernels/kernels.h"
#include "support/ModelBuilder.h"
#include "support/blobs.h"
#include "support/reference.h"
#include "support/targets.h"

namespace ravu::test {
namespace {

TEST(NormalizeKernel, GivesTheSameBitsOnEveryProcessor) {
  for_each_target([] {
    for (const int channels : {2, 3, 15, 16, 17, 33}) {
      const reference::Normalize n{2, 19, channels, false};
      const std::size_t wide = static_cast<std::size_t>(channels);
      const auto input = random_values(2 * 19 * wide, 9);
      const auto scale = random_values(wide, 10);
      std::vector<float> squares(input.size()), norms(2 * 19, 0.5F), output(input.size());
      std::vector<float> expected_squares(input.size()), expected_norms(norms);
      kernels::square(input.data(), squares.data(), input.size());
      kernels::normalize_pixels({2, 19 * wide, 19, wide}, input.data(), squares.data(),
                                norms.data(), scale.data(), false, output.data());
      EXPECT_EQ(output, reference::normalize(n, input, scale, expected_squares, expected_norms));
      EXPECT_EQ(squares, expected_squares);
      EXPECT_EQ(norms, expected_norms);
    }
  });
}

}  // namespace
}  // namespace ravu::test
