// From the rows of a detection output to objects in a picture.
#include "detect.h"

#include <gtest/gtest.h>

#include <limits>

namespace ravu::test {
namespace {

using namespace tools;

constexpr float kNan = std::numeric_limits<float>::quiet_NaN();
constexpr float kInfinity = std::numeric_limits<float>::infinity();

// In a picture of 200 x 100 that the network sees whole.
std::vector<FoundObject> objects(const std::vector<float>& rows, float threshold = 0.5F) {
  return objects_of(rows, {}, {0, 0, 200, 100}, 200, 100, threshold);
}

TEST(ObjectsOf, CornersBecomePixels) {
  const auto found = objects({0, 3, 0.75F, 0.25F, 0.5F, 0.75F, 1.0F});
  ASSERT_EQ(found.size(), 1U);
  EXPECT_EQ(found[0].index, 3U);
  EXPECT_EQ(found[0].label, "3");
  EXPECT_EQ(found[0].score, 0.75F);
  EXPECT_EQ(found[0].xmin, 50);
  EXPECT_EQ(found[0].ymin, 50);
  EXPECT_EQ(found[0].xmax, 150);
  EXPECT_EQ(found[0].ymax, 100);
}

TEST(ObjectsOf, WhatTheNetworkSawMayBeAnotherPartOfThePicture) {
  const std::vector<float> row{0, 1, 1, 0.25F, 0.5F, 0.75F, 1.0F};
  const auto found = objects_of(row, {}, {100, -50, 80, 200}, 200, 100, 0);
  ASSERT_EQ(found.size(), 1U);
  EXPECT_EQ(found[0].xmin, 120);
  EXPECT_EQ(found[0].ymin, 50);
  EXPECT_EQ(found[0].xmax, 160);
  EXPECT_EQ(found[0].ymax, 100);
}

TEST(ObjectsOf, NamesComeFromTheModel) {
  char nothing[] = "nothing";
  char cat[] = "cat";
  char* labels[] = {nothing, cat};
  const std::vector<float> row{0, 1, 1, 0, 0, 1, 1};
  EXPECT_EQ(objects_of(row, labels, {0, 0, 1, 1}, 1, 1, 0)[0].label, "cat");
}

TEST(ObjectsOf, ComeWithTheHighestScoreFirst) {
  const auto found = objects({0, 1, 0.6F, 0, 0, 1, 1,  //
                              0, 2, 0.9F, 0, 0, 1, 1,  //
                              0, 3, 0.6F, 0, 0, 1, 1});
  ASSERT_EQ(found.size(), 3U);
  EXPECT_EQ(found[0].index, 2U);
  EXPECT_EQ(found[1].index, 1U);
  EXPECT_EQ(found[2].index, 3U);
}

TEST(ObjectsOf, AScoreAtTheThresholdCounts) {
  EXPECT_EQ(objects({0, 1, 0.5F, 0, 0, 1, 1}).size(), 1U);
  EXPECT_EQ(objects({0, 1, 0.49F, 0, 0, 1, 1}).size(), 0U);
  EXPECT_EQ(objects({0, 1, kNan, 0, 0, 1, 1}).size(), 0U);
}

TEST(ObjectsOf, RowsEndAtTheFirstThatIsZero) {
  EXPECT_EQ(objects({0, 1, 1, 0, 0, 1, 1, 0, 0, 0, 0, 0, 0, 0, 0, 1, 1, 0, 0, 1, 1}).size(), 1U);
  EXPECT_TRUE(objects({}).empty());
  EXPECT_TRUE(objects({0, 1, 1, 0, 0, 1}).empty());
}

TEST(ObjectsOf, ARowOfScoreZeroIsNotTheEnd) {
  EXPECT_EQ(objects({0, 1, 0, 0, 0, 1, 1, 0, 1, 1, 0, 0, 1, 1}).size(), 1U);
}

TEST(ObjectsOf, BoxesAreCutOffAtThePicturesBorders) {
  const auto found = objects({0, 1, 1, -0.5F, -kInfinity, 1.5F, 0.5F});
  ASSERT_EQ(found.size(), 1U);
  EXPECT_EQ(found[0].xmin, 0);
  EXPECT_EQ(found[0].ymin, 0);
  EXPECT_EQ(found[0].xmax, 200);
  EXPECT_EQ(found[0].ymax, 50);
}

TEST(ObjectsOf, BoxesOutsideEmptyOnesAndThoseThatAreNoNumbersAreLeftOut) {
  EXPECT_TRUE(objects({0, 1, 1, 1.1F, 0, 1.5F, 1}).empty());
  EXPECT_TRUE(objects({0, 1, 1, 0, -1, 1, -0.1F}).empty());
  EXPECT_TRUE(objects({0, 1, 1, 0.5F, 0, 0.5F, 1}).empty());
  EXPECT_TRUE(objects({0, 1, 1, 0.7F, 0, 0.2F, 1}).empty());
  EXPECT_TRUE(objects({0, 1, 1, kNan, 0, 1, 1}).empty());
  EXPECT_TRUE(objects({0, 1, 1, 0, 0, 1, kNan}).empty());
}

}  // namespace
}  // namespace ravu::test
