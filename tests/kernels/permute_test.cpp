// The axis exchange for sizes around the tile, in all six orders.
#include <gtest/gtest.h>

#include <algorithm>

#include "kernels/kernels.h"
#include "kernels/workers.h"
#include "support/ModelBuilder.h"
#include "support/reference.h"

namespace ravu::test {
namespace {

class PermuteKernel : public testing::TestWithParam<std::size_t> {};

INSTANTIATE_TEST_SUITE_P(Threads, PermuteKernel, testing::Values(1, 3));

TEST_P(PermuteKernel, MovesEveryElementInEveryOrder) {
  kernels::Workers workers;
  workers.set_threads(GetParam());
  for (const std::size_t height : {0U, 1U, 2U, 15U, 16U, 17U}) {
    for (const std::size_t width : {1U, 3U, 16U, 33U}) {
      for (const std::size_t channels : {0U, 1U, 7U, 16U, 35U}) {
        const auto input = random_values(height * width * channels, 1);
        std::array<std::size_t, 3> order{0, 1, 2};
        do {
          std::vector<float> output(input.size(), 7);
          kernels::permute({{height, width, channels}, order}, input.data(), output.data(),
                           workers);
          EXPECT_EQ(output, reference::permute({1, height, width, channels},
                                               {order.begin(), order.end()}, input))
              << height << " " << width << " " << channels << ": " << order[0] << order[1];
        } while (std::next_permutation(order.begin(), order.end()));
      }
    }
  }
}

// Without values there are no arrays either.
TEST_P(PermuteKernel, AnEmptyAxisLeavesNothingToMove) {
  kernels::Workers workers;
  workers.set_threads(GetParam());
  std::array<std::size_t, 3> order{0, 1, 2};
  do {
    kernels::permute({{5, 0, 4}, order}, nullptr, nullptr, workers);
  } while (std::next_permutation(order.begin(), order.end()));
}

}  // namespace
}  // namespace ravu::test
