// The local response normalisation kernel on every instruction set.
#include <gtest/gtest.h>

#include "kernels/kernels.h"
#include "kernels/workers.h"
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
        kernels::Workers workers;
        kernels::lrn({static_cast<std::size_t>(channels), 2, 0.5F / 5.0F, -0.75F, k}, input.data(),
                     scale.data(), output.data(), n, scratch.data(), workers);
        const auto expected = reference::lrn(channels, 5, 0.5F, 0.75F, k, input);
        EXPECT_EQ(scale, expected.scale) << channels;
        EXPECT_EQ(bits_of(output), bits_of(expected.output)) << channels << " " << k;
      }
    }
  });
}

// Large enough for several tasks; the last pixel is incomplete.
TEST(LrnKernel, GivesTheSameBitsForEveryNumberOfThreads) {
  constexpr std::size_t kChannels = 33;
  constexpr std::size_t kCount = 3000 * kChannels + 7;
  const auto input = random_values(kCount, 9);
  const auto run = [&](std::size_t threads) {
    kernels::Workers workers;
    workers.set_threads(threads);
    std::vector<float> both(2 * kCount);
    std::vector<float> scratch(kernels::lrn_scratch_floats(kCount, kChannels) * threads);
    kernels::lrn({kChannels, 2, 0.1F, -0.75F, 1.0F}, input.data(), both.data(),
                 both.data() + kCount, kCount, scratch.data(), workers);
    return both;
  };
  const auto alone = run(1);
  for (const std::size_t threads : {2, 3, 4}) EXPECT_EQ(run(threads), alone) << threads;
}

}  // namespace
}  // namespace ravu::test
