// Pooling kernels on every instruction set: the same bits as the naive reference.
#include <gtest/gtest.h>

#include <algorithm>

#include "kernels/kernels.h"
#include "kernels/workers.h"
#include "support/ModelBuilder.h"
#include "support/reference.h"
#include "support/targets.h"

namespace ravu::test {
namespace {

TEST(PoolingKernel, AnyNumberOfRowsWithoutColumnsIsDoneAtOnce) {
  const kernels::PoolingSizes sizes{1, 1, 1, 1, std::size_t{1} << 50, 0, 3, 3, 2, 2, 0, 0};
  kernels::Workers workers;
  float value = 7;
  kernels::max_pooling(sizes, &value, &value, workers);
  kernels::average_pooling(sizes, &value, &value, workers);
  EXPECT_EQ(value, 7);
}

TEST(PoolingKernel, GivesTheSameBitsOnEveryProcessor) {
  for_each_target([] {
    for (const int channels : {1, 3, 4, 15, 16, 17, 33}) {
      for (const int pad : {0, 1, 2}) {
        const reference::Pooling p{2, 7, 6, channels, 3, 2, pad, pad};
        const auto input = random_values(static_cast<std::size_t>(2 * 7 * 6 * channels), 9);
        const auto size = [](int n) { return static_cast<std::size_t>(n); };
        const std::size_t out_h = size(reference::pooled_size(7, 3, 2, pad));
        const std::size_t out_w = size(reference::pooled_size(6, 3, 2, pad));
        const kernels::PoolingSizes sizes{2, 7, 6, size(channels), out_h,    out_w, 3,
                                          3, 2, 2, size(pad),      size(pad)};
        std::vector<float> output(2 * out_h * out_w * size(channels));
        kernels::Workers workers;
        kernels::max_pooling(sizes, input.data(), output.data(), workers);
        EXPECT_EQ(output, reference::pool(p, true, input)) << channels << " " << pad;
        kernels::average_pooling(sizes, input.data(), output.data(), workers);
        EXPECT_EQ(output, reference::pool(p, false, input)) << channels << " " << pad;
      }
    }
  });
}

// Large enough for several tasks.
TEST(PoolingKernel, GivesTheSameBitsForEveryNumberOfThreads) {
  const kernels::PoolingSizes sizes{3, 60, 50, 33, 31, 26, 3, 3, 2, 2, 1, 1};
  const auto input = random_values(3 * 60 * 50 * 33, 9);
  for (const auto pooling : {kernels::max_pooling, kernels::average_pooling}) {
    const auto run = [&](std::size_t threads) {
      kernels::Workers workers;
      workers.set_threads(threads);
      std::vector<float> output(3 * 31 * 26 * 33, -9.0F);
      pooling(sizes, input.data(), output.data(), workers);
      return output;
    };
    const auto alone = run(1);
    EXPECT_EQ(std::count(alone.begin(), alone.end(), -9.0F), 0);
    for (const std::size_t threads : {2, 3, 4}) EXPECT_EQ(run(threads), alone) << threads;
  }
}

}  // namespace
}  // namespace ravu::test
