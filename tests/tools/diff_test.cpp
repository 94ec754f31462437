// ravu diff: comparing two outputs, and two lists of them.
#include "diff.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cmath>
#include <limits>

#include "common/failure.h"

namespace ravu::test {
namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;
using tools::compare_networks;
using tools::compare_outputs;
using tools::LayerOutput;

constexpr float kNan = std::numeric_limits<float>::quiet_NaN();
constexpr float kInfinity = std::numeric_limits<float>::infinity();

LayerOutput output_of(const char* name, std::vector<float> values, std::uint32_t writer = 0,
                      const char* class_name = "conv") {
  LayerOutput output;
  output.class_name = class_name;
  output.name = name;
  output.writer = writer;
  output.values = std::move(values);
  return output;
}

double error_of(std::vector<float> first, std::vector<float> second) {
  return compare_outputs(output_of("a", std::move(first)), output_of("a", std::move(second))).error;
}

double table_error(std::vector<float> first, std::vector<float> second) {
  const auto difference = compare_outputs(output_of("a", std::move(first), 0, "detectionout"),
                                          output_of("a", std::move(second), 0, "detectionout"));
  EXPECT_EQ(difference.range, 1);
  return difference.error;
}

TEST(CompareOutputs, TheErrorIsTheLargestDifferenceInPartsOfTheFirstOnesRange) {
  const auto difference =
      compare_outputs(output_of("a", {-1, 0, 3}), output_of("a", {-1, 0.5F, 2}));
  EXPECT_EQ(difference.error, 1);
  EXPECT_EQ(difference.range, 4);
  EXPECT_EQ(difference.relative(), 0.25);
}

TEST(CompareOutputs, ValuesThatAreAllTheSameAreComparedAsTheyAre) {
  const auto difference = compare_outputs(output_of("a", {2, 2}), output_of("a", {2, 2.5F}));
  EXPECT_EQ(difference.range, 0);
  EXPECT_EQ(difference.relative(), 0.5);
}

TEST(CompareOutputs, ValuesThatAreNotFiniteAgreeOnlyWithTheSame) {
  EXPECT_EQ(error_of({kNan, kInfinity, 1}, {kNan, kInfinity, 1}), 0);
  EXPECT_TRUE(std::isinf(error_of({kNan, 1}, {1, 1})));
  EXPECT_TRUE(std::isinf(error_of({1, 1}, {1, kNan})));
  EXPECT_TRUE(std::isinf(error_of({kInfinity}, {-kInfinity})));
}

TEST(CompareOutputs, OtherSizesDifferInfinitely) {
  EXPECT_TRUE(std::isinf(error_of({1, 2}, {1})));
}

TEST(CompareOutputs, RowsOfDetectionsMayChangePlaces) {
  const std::vector<float> a{0, 1, 0.9F, 0, 0, 1, 1};
  const std::vector<float> b{0, 1, 0.8F, 0, 0.5F, 1, 1};
  const std::vector<float> b_moved{0, 1, 0.8F, 0, 0.75F, 1, 1};
  std::vector<float> ab = a;
  ab.insert(ab.end(), b.begin(), b.end());
  std::vector<float> ba = b_moved;
  ba.insert(ba.end(), a.begin(), a.end());
  EXPECT_EQ(table_error(ab, ab), 0);
  EXPECT_EQ(table_error(ab, ba), 0.25);
}

TEST(CompareOutputs, ADetectionOfAnotherLabelOrImageIsNoPartner) {
  const std::vector<float> row{0, 1, 0.75F, 0, 0, 1, 1};
  EXPECT_EQ(table_error(row, {0, 2, 0.75F, 0, 0, 1, 1}), 0.75);
  EXPECT_EQ(table_error(row, {1, 1, 0.75F, 0, 0, 1, 1}), 0.75);
}

TEST(CompareOutputs, ADetectionThatOnlyOneSideHasDiffersByItsScore) {
  const std::vector<float> row{0, 1, 0.5F, 0, 0, 1, 1};
  const std::vector<float> none(7, 0.0F);
  EXPECT_EQ(table_error(row, none), 0.5);
  EXPECT_EQ(table_error(none, row), 0.5);
  EXPECT_EQ(table_error(none, none), 0);
}

TEST(CompareNetworks, MatchesTheWritersOfABlobInTheirOrder) {
  const std::vector<LayerOutput> first{output_of("a", {0, 1}), output_of("a", {0, 2}, 1)};
  const auto same = compare_networks(first, first, 0);
  EXPECT_FALSE(same.first_above);
  const std::vector<LayerOutput> second{output_of("a", {0, 1}), output_of("a", {0, 3}, 1)};
  const auto other = compare_networks(first, second, 0);
  EXPECT_EQ(other.first_above, 1U);
  EXPECT_EQ(other.layers[1].index, 1U);
}

TEST(CompareNetworks, ListsTheLayersThatOnlyOneNetworkHas) {
  const std::vector<LayerOutput> first{output_of("a", {0, 1}), output_of("b", {0, 1})};
  const std::vector<LayerOutput> second{output_of("c", {5}), output_of("b", {0, 1})};
  const auto report = compare_networks(first, second, 0);
  ASSERT_EQ(report.layers.size(), 1U);
  EXPECT_EQ(report.layers[0].output, "b");
  EXPECT_EQ(report.layers[0].index, 1U);
  EXPECT_THAT(report.only_in_first, ElementsAre("conv a"));
  EXPECT_THAT(report.only_in_second, ElementsAre("conv c"));
  EXPECT_FALSE(report.first_above);
}

TEST(CompareNetworks, WithoutACommonLayerIsAFailure) {
  EXPECT_THROW(compare_networks({output_of("a", {1})}, {output_of("b", {1})}, 0), tools::Failure);
}

TEST(CompareNetworks, AToleranceIsNotExceededByItself) {
  const std::vector<LayerOutput> first{output_of("a", {0, 1})};
  const std::vector<LayerOutput> second{output_of("a", {0, 1.25F})};
  EXPECT_FALSE(compare_networks(first, second, 0.25).first_above);
  EXPECT_TRUE(compare_networks(first, second, 0.24).first_above);
}

TEST(CompareNetworks, ALayerThatCannotBeComparedIsNotAboveTheTolerance) {
  std::vector<LayerOutput> first{output_of("a", {0, 1})};
  const std::vector<LayerOutput> second = first;
  first[0].values.clear();
  first[0].problem = "has no values";
  const auto report = compare_networks(first, second, 0);
  EXPECT_FALSE(report.first_above);
  EXPECT_EQ(report.layers[0].problem, "has no values");
}

}  // namespace
}  // namespace ravu::test
