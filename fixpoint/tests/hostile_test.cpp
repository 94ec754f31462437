// What callers must not do is refused, and the operator works on afterwards.
#include <gtest/gtest.h>

#include <cmath>
#include <limits>

#include "operators.h"

namespace ravu::fixpoint::test {
namespace {

constexpr int kHuge = std::numeric_limits<int>::max();
constexpr int kLeast = std::numeric_limits<int>::min();

ConvCase small_case() {
  ConvCase c;
  c.height = c.width = 4;
  c.channels = 2;
  c.outputs = 3;
  c.kernel_h = c.kernel_w = 3;
  c.pad_h = c.pad_w = 1;
  fill(c, 1, true);
  return c;
}

TEST(Hostile, NullOperatorsAreRefusedByEveryFunction) {
  const ConvCase c = small_case();
  float output = 0;
  EXPECT_FALSE(configure(nullptr, c));
  EXPECT_FALSE(function<ConvFinish>(kConvFinish)(nullptr, 64));
  EXPECT_FALSE(set_input(nullptr, c));
  EXPECT_FALSE(function<ConvRun>(kConvRun)(nullptr, &output, 0.5F));
  EXPECT_FALSE(function<FullyConnectConfigure>(kFullyConnectConfigure)(
      nullptr, 1, 1, c.weights.data(), nullptr, false));
  EXPECT_FALSE(function<FullyConnectFinish>(kFullyConnectFinish)(nullptr, 64));
  EXPECT_FALSE(
      function<FullyConnectSetInput>(kFullyConnectSetInput)(nullptr, 1, 1, c.input.data(), 127));
  EXPECT_FALSE(function<FullyConnectRun>(kFullyConnectRun)(nullptr, &output, 0.5F));
  EXPECT_FALSE(function<SetThreads>(kSetThreads)(nullptr, 1));
  EXPECT_EQ(function<Executions>(kExecutions)(nullptr), 0U);
  function<Destroy>(kDestroy)(nullptr);
}

TEST(Hostile, OtherVersionsAreRefused) {
  for (const int version : {0, 2, -1, kHuge}) {
    EXPECT_EQ(function<ConvCreate>(kConvCreate)(version), nullptr);
    EXPECT_EQ(function<FullyConnectCreate>(kFullyConnectCreate)(version), nullptr);
  }
}

TEST(Hostile, AnOperatorOfTheOtherKindIsRefused) {
  const ConvCase c = small_case();
  const Holder product(function<FullyConnectCreate>(kFullyConnectCreate)(1));
  EXPECT_FALSE(configure(product, c));
  const Conv conv(c);
  EXPECT_FALSE(
      function<FullyConnectSetInput>(kFullyConnectSetInput)(conv, 1, 32, c.input.data(), 127));
}

TEST(Hostile, SizesOutOfRangeAreRefused) {
  using Field = int ConvCase::*;
  for (const Field field :
       {&ConvCase::channels, &ConvCase::outputs, &ConvCase::kernel_h, &ConvCase::kernel_w,
        &ConvCase::stride_h, &ConvCase::stride_w, &ConvCase::dilation_h, &ConvCase::dilation_w,
        &ConvCase::pad_h, &ConvCase::pad_w}) {
    for (const int size : {0, -1, kHuge, kLeast}) {
      if (size == 0 && (field == &ConvCase::pad_h || field == &ConvCase::pad_w)) continue;
      ConvCase c = small_case();
      c.*field = size;
      const Holder op(function<ConvCreate>(kConvCreate)(1));
      EXPECT_FALSE(configure(op, c)) << size;
    }
  }
  ConvCase c = small_case();
  const Conv conv(c);
  for (const Field field :
       {&ConvCase::batch, &ConvCase::height, &ConvCase::width, &ConvCase::channels}) {
    for (const int size : {0, -1, 1, kHuge, kLeast}) {
      if (size == 1 && field != &ConvCase::channels) continue;
      ConvCase wrong = c;
      wrong.*field = size;
      EXPECT_FALSE(set_input(conv, wrong)) << size;
    }
  }
  c.height = c.width = 1 << 20;
  EXPECT_FALSE(set_input(conv, c));
  EXPECT_FALSE(function<FullyConnectConfigure>(kFullyConnectConfigure)(
      Holder(function<FullyConnectCreate>(kFullyConnectCreate)(1)), 1 << 20, 1 << 20,
      c.weights.data(), nullptr, false));
}

// Products of sizes that would pass 64 bits if nobody looked.
TEST(Hostile, SizesThatMultiplyToTooMuchAreRefused) {
  ConvCase c = small_case();
  c.kernel_h = c.kernel_w = c.channels = c.outputs = 1 << 20;
  EXPECT_FALSE(configure(Holder(function<ConvCreate>(kConvCreate)(1)), c));
  c = small_case();
  c.pad_h = c.pad_w = 1 << 20;
  const Conv conv(c);
  ASSERT_TRUE(conv.usable());
  EXPECT_FALSE(set_input(conv, c));
}

// A few numbers that ask for gigabytes of padding.
TEST(Hostile, PaddingOutOfAllProportionIsRefused) {
  ConvCase c = small_case();
  c.pad_h = c.pad_w = 10000;
  c.stride_h = c.stride_w = 2;
  c.outputs = 1;
  fill(c, 2, false);
  const Conv accepted(c);
  EXPECT_TRUE(set_input(accepted, c)) << "the output is as large";
  c.channels = 1;
  c.kernel_h = c.kernel_w = c.stride_h = c.stride_w = 200;
  fill(c, 3, false);
  const Conv refused(c);
  ASSERT_TRUE(refused.usable());
  EXPECT_FALSE(set_input(refused, c));
}

TEST(Hostile, RangesAndRoundingsOutOfBoundsAreRefused) {
  const ConvCase c = small_case();
  const Holder op(function<ConvCreate>(kConvCreate)(1));
  ASSERT_TRUE(configure(op, c));
  for (const float range : {0.0F, -1.0F, 64.5F, 127.0F, INFINITY, NAN}) {
    EXPECT_FALSE(function<ConvFinish>(kConvFinish)(op, range)) << range;
  }
  ASSERT_TRUE(function<ConvFinish>(kConvFinish)(op, 64));
  for (const float range : {0.0F, -1.0F, 127.5F, INFINITY, NAN}) {
    EXPECT_FALSE(set_input(op, c, range)) << range;
  }
  ASSERT_TRUE(set_input(op, c));
  float output[48];
  for (const float rounding : {-0.5F, 1.5F, INFINITY, NAN}) {
    EXPECT_FALSE(function<ConvRun>(kConvRun)(op, output, rounding)) << rounding;
  }
  EXPECT_TRUE(function<ConvRun>(kConvRun)(op, output, 0.5F));
}

TEST(Hostile, CallsOutOfOrderAreRefused) {
  const ConvCase c = small_case();
  std::vector<float> output(48);
  const Holder op(function<ConvCreate>(kConvCreate)(1));
  const auto run = function<ConvRun>(kConvRun);
  const auto finish = function<ConvFinish>(kConvFinish);
  EXPECT_FALSE(finish(op, 64));
  EXPECT_FALSE(set_input(op, c));
  EXPECT_FALSE(run(op, output.data(), 0.5F));
  ASSERT_TRUE(configure(op, c));
  EXPECT_FALSE(set_input(op, c));
  EXPECT_FALSE(run(op, output.data(), 0.5F));
  ASSERT_TRUE(finish(op, 64));
  EXPECT_FALSE(finish(op, 64));
  EXPECT_FALSE(configure(op, c));
  EXPECT_FALSE(run(op, output.data(), 0.5F));
  ASSERT_TRUE(set_input(op, c));
  EXPECT_TRUE(run(op, output.data(), 0.5F));
  EXPECT_FALSE(run(op, output.data(), 0.5F)) << "the input was announced for one run";
}

TEST(Hostile, NullDataReservedArgumentsAndThreadCountsAreRefused) {
  const ConvCase c = small_case();
  const auto configure_with = [&](const float* weights, int groups, bool reserved) {
    return function<ConvConfigure>(kConvConfigure)(Holder(function<ConvCreate>(kConvCreate)(1)),
                                                   c.outputs, c.channels, groups, 3, 3, 1, 1, 1, 1,
                                                   1, 1, weights, false, nullptr, reserved);
  };
  EXPECT_FALSE(configure_with(nullptr, 1, false));
  EXPECT_FALSE(configure_with(c.weights.data(), 2, false));
  EXPECT_FALSE(configure_with(c.weights.data(), 1, true));
  EXPECT_TRUE(configure_with(c.weights.data(), 1, false));
  Conv conv(c);
  EXPECT_FALSE(function<ConvSetInput>(kConvSetInput)(conv, 1, 2, 4, 4, nullptr, 127));
  ASSERT_TRUE(set_input(conv, c));
  EXPECT_FALSE(function<ConvRun>(kConvRun)(conv, nullptr, 0.5F));
  for (const int threads : {0, -1, kHuge}) EXPECT_FALSE(conv.set_threads(threads));
  EXPECT_EQ(conv.run(c), convolve(c));
}

}  // namespace
}  // namespace ravu::fixpoint::test
