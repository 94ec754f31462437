// The local response normalisation kernel on every instruction set.
#include <gtest/gtest.h>

#include "kernels/kernels.h"
#include "support/ModelBuilder.h"
#include "support/blobs.h"
#include "support/reference.h"
#include "support/targets.h"

namespace ravu::test {
namespace {

TEST(LrnKernel, GivesTheSameBitsOnEveryProcessor) {
  for_each_target([] {
    for (const int channels : {1, 3, 7, 16, 17, 33}) {
      for (const float k : {-0.01F, 1.0F}) {
        const std::size_t n = static_cast<std::size_t>(21 * channels);
        const auto input = random_values(n, 9);
        std::vector<float> scale(n), output(n);
        std::vector<float> scratch(
            kernels::lrn_scratch_floats(n, static_cast<std::size_t>(channels)));
        kernels::lrn({static_cast<std::size_t>(channels), 2, 0.5F / 5.0F, -0.75F, k}, input.data(),
                     scale.data(), output.data(), n, scratch.data());
        const auto expected = reference::lrn(channels, 5, 0.5F, 0.75F, k, input);
        EXPECT_EQ(scale, expected.scale) << channels;
        EXPECT_EQ(bits_of(output), bits_of(expected.output)) << channels << " " << k;
      }
    }
  });
}

}  // namespace
}  // namespace ravu::test
