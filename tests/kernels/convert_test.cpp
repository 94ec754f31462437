// Floating point to integer.
#include "kernels/convert.h"

#include <gtest/gtest.h>

#include <limits>

namespace ravu::test {
namespace {

constexpr std::int32_t kIndefinite = std::numeric_limits<std::int32_t>::min();

TEST(ToInt32, TruncatesTowardsZero) {
  EXPECT_EQ(kernels::to_int32(2.9), 2);
  EXPECT_EQ(kernels::to_int32(-2.9), -2);
  EXPECT_EQ(kernels::to_int32(2147483647.5), 2147483647);
  EXPECT_EQ(kernels::to_int32(-2147483648.5), kIndefinite);
}

TEST(ToInt32, OutOfRangeAndNotANumberGiveTheIndefiniteInteger) {
  EXPECT_EQ(kernels::to_int32(2147483648.0), kIndefinite);
  EXPECT_EQ(kernels::to_int32(-3e9), kIndefinite);
  EXPECT_EQ(kernels::to_int32(std::numeric_limits<float>::infinity()), kIndefinite);
  EXPECT_EQ(kernels::to_int32(std::numeric_limits<float>::quiet_NaN()), kIndefinite);
}

}  // namespace
}  // namespace ravu::test
