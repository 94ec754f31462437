// Convolutions against the integer reference, to the bit: shapes, large sums, threads, odd values.
#include <gtest/gtest.h>
#ifdef _OPENMP
#include <omp.h>
#endif

#include <limits>
#include <random>
#include <thread>

#include "operators.h"

namespace ravu::fixpoint::test {
namespace {

void expect_reference(const ConvCase& c, const char* what = "") {
  const Conv conv(c);
  ASSERT_TRUE(conv.usable()) << what;
  const auto output = conv.run(c);
  ASSERT_TRUE(output) << what;
  EXPECT_EQ(*output, convolve(c)) << what;
}

ConvCase square(int batch, int size, int channels, int outputs, int kernel, int stride, int pad) {
  ConvCase c;
  c.batch = batch;
  c.height = c.width = size;
  c.channels = channels;
  c.outputs = outputs;
  c.kernel_h = c.kernel_w = kernel;
  c.stride_h = c.stride_w = stride;
  c.pad_h = c.pad_w = pad;
  return c;
}

TEST(Convolution, AgreesWithTheReferenceToTheBitOnRandomShapes) {
  std::mt19937 random(7);
  const auto draw = [&](int low, int high) {
    return std::uniform_int_distribution<int>(low, high)(random);
  };
  for (unsigned i = 0; i < 300; ++i) {
    ConvCase c;
    c.batch = draw(1, 3);
    c.height = draw(1, 17);
    c.width = draw(1, 17);
    c.channels = draw(0, 3) == 0 ? draw(1, 70) : draw(1, 9);
    c.outputs = draw(0, 3) == 0 ? draw(1, 70) : draw(1, 9);
    c.kernel_h = draw(1, 5);
    c.kernel_w = draw(1, 5);
    c.stride_h = draw(1, 4);
    c.stride_w = draw(1, 4);
    c.pad_h = draw(0, 3);
    c.pad_w = draw(0, 3);
    c.dilation_h = draw(0, 4) == 0 ? 2 : 1;
    c.dilation_w = draw(0, 4) == 0 ? 3 : 1;
    fill(c, i, draw(0, 1) == 1, draw(0, 1) == 0 ? 0.0F : -2.0F);
    expect_reference(c, ("case " + std::to_string(i)).c_str());
  }
}

TEST(Convolution, AgreesOnTheLayersOfWellKnownNetworks) {
  for (ConvCase c : {square(1, 28, 3, 64, 7, 2, 3), square(1, 14, 64, 64, 3, 1, 1),
                     square(1, 7, 512, 40, 3, 1, 1), square(2, 7, 1024, 256, 1, 1, 0),
                     square(1, 14, 256, 512, 1, 2, 0), square(1, 20, 1, 1, 3, 1, 1)}) {
    fill(c, 3, true, 0);
    expect_reference(c, "unsigned");
    fill(c, 4, true, -1);
    expect_reference(c, "signed");
  }
}

TEST(Convolution, OneChannelToOneAgreesWhateverTheSizes) {
  for (const int kernel : {1, 2, 3, 5}) {
    for (const int stride : {1, 2, 3}) {
      for (const int size : {1, 2, 3, 4, 5, 7, 8, 9, 14, 16, 33, 70}) {
        ConvCase c = square(2, size, 1, 1, kernel, stride, kernel / 2);
        fill(c, 20, true, size % 2 == 0 ? 0.0F : -2.0F);
        expect_reference(c, "one to one");
      }
    }
  }
}

// All weights and inputs at the end of their ranges: sums far beyond what single precision counts.
TEST(Convolution, LargeSumsAreExactWhateverTheSigns) {
  ConvCase c = square(1, 4, 1600, 3, 3, 1, 1);
  for (const float weight : {1.0F, -1.0F}) {
    for (const float input : {1.0F, -1.0F}) {
      fill(c, 5, false);
      for (float& w : c.weights) w = weight - w * 0.05F * weight;
      for (float& x : c.input) x = input - x * 0.01F * input;
      expect_reference(c);
    }
  }
  fill(c, 6, false, -3);
  for (float& w : c.weights) w = w < 0 ? -1 : 1;
  expect_reference(c, "mixed signs");
}

TEST(Convolution, EveryNumberOfThreadsGivesTheSameBits) {
  ConvCase c = square(2, 40, 24, 48, 3, 1, 1);
  fill(c, 8, true);
  const auto expected = convolve(c);
  Conv conv(c);
  for (const int threads : {1, 2, 3, 8, 1}) {
    ASSERT_TRUE(conv.set_threads(threads));
    EXPECT_EQ(conv.run(c), expected) << threads;
  }
}

#ifdef _OPENMP
TEST(Convolution, TheCallersOwnThreadSettingIsKept) {
  ConvCase c = square(1, 8, 4, 4, 3, 1, 1);
  fill(c, 9, false);
  Conv conv(c);
  ASSERT_TRUE(conv.set_threads(2));
  const int before = omp_get_max_threads();
  omp_set_num_threads(5);
  EXPECT_TRUE(conv.run(c));
  EXPECT_EQ(omp_get_max_threads(), 5);
  omp_set_num_threads(before);
}
#endif

TEST(Convolution, OperatorsOfDifferentThreadsDoNotDisturbEachOther) {
  const auto work = [](unsigned seed) {
    for (unsigned i = 0; i < 10; ++i) {
      ConvCase c = square(1, 10, 8, 16, 3, 1, 1);
      fill(c, seed + i, true);
      expect_reference(c);
    }
  };
  std::thread other(work, 100);
  work(200);
  other.join();
}

TEST(Convolution, DilationMovesTheKernelsStartAndKeepsItsTapsTogether) {
  ConvCase c;
  c.width = 5;
  c.kernel_w = 2;
  c.dilation_w = 2;
  c.weights = {64, 32};
  c.input = {1, 2, 4, 8, 127};
  // Two windows: they start at columns 1 and 2.
  const Conv conv(c);
  EXPECT_EQ(conv.run(c), (std::vector<float>{64 * 2 + 32 * 4, 64 * 4 + 32 * 8}));
}

TEST(Convolution, EachImageHasAStepOfItsOwn) {
  ConvCase c;
  c.batch = 2;
  c.width = 2;
  c.weights = {64};
  c.input = {1, 127, 0.01F, 1.27F};
  const auto output = *Conv(c).run(c);
  EXPECT_EQ(output[0], 64);
  EXPECT_FLOAT_EQ(output[2], 0.64F);
}

TEST(Convolution, BatchAndSizeMayChangeBetweenCalls) {
  ConvCase c = square(1, 6, 5, 7, 3, 2, 1);
  fill(c, 11, true);
  const Conv conv(c);
  const auto weights = c.weights;
  for (const auto& [batch, size] : {std::pair(1, 6), {3, 6}, {2, 11}, {1, 6}, {1, 1}}) {
    c.batch = batch;
    c.height = c.width = size;
    fill(c, 11, true);
    ASSERT_EQ(c.weights, weights);
    EXPECT_EQ(conv.run(c), convolve(c)) << batch << " of " << size;
  }
}

TEST(Convolution, MoreShapesThanAreKeptWorkAllTheSame) {
  ConvCase c = square(1, 1, 3, 4, 1, 1, 0);
  const Conv conv((fill(c, 12, false), c));
  for (int round = 0; round < 2; ++round) {
    for (int size = 1; size <= 20; ++size) {
      c.height = c.width = size;
      fill(c, 12, false);
      EXPECT_EQ(conv.run(c), convolve(c)) << size;
    }
  }
}

TEST(Convolution, WhatIsNoNumberCountsAsZeroAndInfinityIsLimited) {
  const float infinity = std::numeric_limits<float>::infinity();
  const float nan = std::numeric_limits<float>::quiet_NaN();
  ConvCase c;
  c.width = 5;
  c.weights = {64};
  c.input = {nan, infinity, -infinity, 127, -1};
  EXPECT_EQ(Conv(c).run(c), (std::vector<float>{0, 127 * 64, -127 * 64, 127 * 64, -64}));
  ConvCase weights = square(1, 1, 3, 1, 1, 1, 0);
  weights.weights = {nan, infinity, 64};
  weights.input = {1, 2, 127};
  EXPECT_EQ(Conv(weights).run(weights), (std::vector<float>{64 * 2 + 64 * 127}));
}

TEST(Convolution, ZerosGiveTheBiasAndTinyValuesStayFinite) {
  ConvCase c = square(1, 2, 1, 2, 1, 1, 0);
  c.weights = {0, 1};
  c.bias = {0.25F, -3};
  c.input = {0, 0, 0, 0};
  EXPECT_EQ(Conv(c).run(c), (std::vector<float>{0.25F, -3, 0.25F, -3, 0.25F, -3, 0.25F, -3}));
  c.input = {1e-44F, 0, 1e-40F, -1e-42F};
  expect_reference(c);
}

TEST(Convolution, OtherRangesAndRoundingsAreWhatTheySay) {
  ConvCase c = square(2, 9, 6, 5, 3, 1, 1);
  fill(c, 13, true);
  const Conv conv(c, /*weight_range=*/32);
  for (const float range : {127.0F, 63.0F, 100.5F}) {
    for (const float rounding : {0.0F, 0.5F, 1.0F}) {
      EXPECT_EQ(conv.run(c, range, rounding), convolve(c, 32, range, rounding));
    }
  }
}

TEST(Convolution, AKernelLargerThanThePaddedImageWritesNothing) {
  ConvCase c = square(1, 2, 1, 1, 5, 1, 1);
  fill(c, 14, true);
  const Conv conv(c);
  ASSERT_TRUE(set_input(conv, c));
  float untouched = 7;
  EXPECT_TRUE(function<ConvRun>(kConvRun)(conv, &untouched, 0.5F));
  EXPECT_EQ(untouched, 7);
  EXPECT_EQ(conv.executions(), 0U);
}

TEST(Convolution, EveryImageIsOneExecutionOfTheIntegerPrimitive) {
  ConvCase c = square(3, 6, 5, 7, 3, 1, 1);
  fill(c, 15, true);
  const Conv conv(c);
  EXPECT_EQ(conv.executions(), 0U);
  EXPECT_TRUE(conv.run(c));
  EXPECT_EQ(conv.executions(), 3U);
  EXPECT_TRUE(conv.run(c));
  EXPECT_EQ(conv.executions(), 6U);
}

TEST(Convolution, WeightsAndBiasAreKeptSinceTheOperatorWasFinished) {
  ConvCase c = square(1, 6, 5, 7, 3, 1, 1);
  fill(c, 16, true);
  const auto expected = convolve(c);
  const Conv conv(c);
  for (float& weight : c.weights) weight = 0;
  for (float& bias : c.bias) bias = 0;
  EXPECT_EQ(conv.run(c), expected);
}

}  // namespace
}  // namespace ravu::fixpoint::test
