// The order of predictions.
#include "classify.h"

#include <gtest/gtest.h>

#include <limits>

namespace ravu::test {
namespace {

using namespace tools;

std::vector<std::uint32_t> indices_of(const std::vector<Prediction>& predictions) {
  std::vector<std::uint32_t> indices;
  for (const Prediction& prediction : predictions) indices.push_back(prediction.index);
  return indices;
}

TEST(BestPredictions, HighestFirstAndEqualOnesByIndex) {
  const std::vector<float> scores{0.1F, 0.4F, 0.1F, 0.4F};
  EXPECT_EQ(indices_of(best_predictions(scores, {}, 4)), (std::vector<std::uint32_t>{1, 3, 0, 2}));
}

TEST(BestPredictions, NoMoreThanThereAre) {
  const std::vector<float> scores{0.2F, 0.8F};
  EXPECT_EQ(best_predictions(scores, {}, 5).size(), 2U);
  EXPECT_EQ(best_predictions(scores, {}, 1).size(), 1U);
  EXPECT_TRUE(best_predictions({}, {}, 5).empty());
}

TEST(BestPredictions, WhatIsNoNumberComesLast) {
  const float nan = std::numeric_limits<float>::quiet_NaN();
  const std::vector<float> scores{nan, -5.0F, nan, 2.0F};
  EXPECT_EQ(indices_of(best_predictions(scores, {}, 4)), (std::vector<std::uint32_t>{3, 1, 0, 2}));
}

TEST(BestPredictions, TheIndexStandsInForAMissingLabel) {
  char first[] = "cat";
  char second[] = "";
  char* labels[] = {first, second};
  const std::vector<float> scores{0.5F, 0.3F, 0.2F};
  const auto best = best_predictions(scores, labels, 3);
  EXPECT_EQ(best[0].label, "cat");
  EXPECT_EQ(best[1].label, "1");
  EXPECT_EQ(best[2].label, "2");
}

}  // namespace
}  // namespace ravu::test
