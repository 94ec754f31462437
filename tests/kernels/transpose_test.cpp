// Matrices turned over, with sides around the block's, for any number of threads.
#include <gtest/gtest.h>

#include "kernels/kernels.h"
#include "kernels/workers.h"
#include "support/ModelBuilder.h"

namespace ravu::test {
namespace {

TEST(TransposeKernel, PutsRowsInPlaceOfColumns) {
  for (const std::size_t threads : {1U, 3U}) {
    kernels::Workers workers;
    workers.set_threads(threads);
    for (const std::size_t rows : {1U, 15U, 16U, 17U, 100U}) {
      for (const std::size_t columns : {1U, 7U, 16U, 33U, 64U}) {
        const auto input = random_values(rows * columns, 1);
        std::vector<float> output(rows * columns);
        kernels::transpose(input.data(), columns, rows, columns, output.data(), rows, workers);
        for (std::size_t i = 0; i < input.size(); ++i) {
          ASSERT_EQ(output[i % columns * rows + i / columns], input[i]) << rows << " " << columns;
        }
        std::vector<float> alone(rows * columns);
        kernels::transpose(input.data(), columns, rows, columns, alone.data(), rows);
        EXPECT_EQ(alone, output);
      }
    }
  }
}

TEST(TransposeKernel, LeavesWhatLiesBetweenTheRowsAlone) {
  kernels::Workers workers;
  constexpr std::size_t kRows = 21;
  constexpr std::size_t kColumns = 18;
  const auto input = random_values(kRows * 20, 2);
  std::vector<float> output(kColumns * 25, -7.0F);
  kernels::transpose(input.data(), 20, kRows, kColumns, output.data(), 25, workers);
  for (std::size_t i = 0; i < output.size(); ++i) {
    const std::size_t r = i % 25;
    ASSERT_EQ(output[i], r < kRows ? input[r * 20 + i / 25] : -7.0F) << i;
  }
}

}  // namespace
}  // namespace ravu::test
