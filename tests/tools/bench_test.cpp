// The figures that a measurement is summed up by.
#include "bench.h"

#include <gtest/gtest.h>

namespace ravu::test {
namespace {

using namespace tools;

TEST(SummariseTimes, FindsExtremesQuartilesAndMedianOfUnsortedTimes) {
  const Timing timing = summarise_times({5, 1, 4, 2, 3});
  EXPECT_EQ(timing.minimum, 1);
  EXPECT_EQ(timing.lower, 2);
  EXPECT_EQ(timing.median, 3);
  EXPECT_EQ(timing.upper, 4);
  EXPECT_EQ(timing.maximum, 5);
}

TEST(SummariseTimes, TheMedianOfAnEvenNumberLiesBetween) {
  EXPECT_EQ(summarise_times({1, 2, 3, 10}).median, 2.5);
  EXPECT_EQ(summarise_times({1, 2, 3, 10}).lower, 1.75);
}

TEST(SummariseTimes, OneTimeIsEverything) {
  const Timing timing = summarise_times({7});
  EXPECT_EQ(timing.minimum, 7);
  EXPECT_EQ(timing.median, 7);
  EXPECT_EQ(timing.maximum, 7);
}

TEST(Gflops, CountsTwoOperationsForAMultiplyAdd) {
  EXPECT_DOUBLE_EQ(gflops(500'000'000, 0.5), 2.0);
  EXPECT_EQ(gflops(1, 0), 0);
}

}  // namespace
}  // namespace ravu::test
