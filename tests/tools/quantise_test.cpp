// The measure of differences, and the root keys that come back.
#include "quantise.h"

#include <gtest/gtest.h>

#include <cmath>
#include <limits>

#include "model/tag_writer.h"
#include "support/ModelBuilder.h"

namespace ravu::test {
namespace {

using namespace tools;

BlobPtr values(const std::vector<float>& numbers) {
  auto blob = std::make_unique<Blob>();
  static_cast<Shape&>(*blob) =
      *make_shape(1, 1, 1, static_cast<std::int64_t>(numbers.size()), kInterleaved);
  assign(*blob, numbers.data());
  return blob;
}

double relative(const std::vector<float>& a, const std::vector<float>& b) {
  Difference difference;
  difference.add(*values(a), *values(b));
  return difference.relative();
}

TEST(Difference, IsTheLengthOfTheDifferenceOverThatOfTheValues) {
  EXPECT_DOUBLE_EQ(relative({3, 4}, {3, 4}), 0);
  EXPECT_DOUBLE_EQ(relative({3, 4}, {3, 3}), 0.2);
  EXPECT_DOUBLE_EQ(relative({3, 4}, {-3, -4}), 2);
}

TEST(Difference, AddsUpOverSeveralBlobs) {
  Difference difference;
  difference.add(*values({3}), *values({3}));
  difference.add(*values({4}), *values({3.5F}));
  EXPECT_DOUBLE_EQ(difference.relative(), 0.1);
  EXPECT_DOUBLE_EQ(difference.greatest, 0.5);
}

TEST(Difference, ZerosHaveAnErrorToo) {
  EXPECT_EQ(relative({0, 0}, {0, 0}), 0);
  EXPECT_LT(relative({0, 0}, {1e-38F, 0}), 1e-7);
  EXPECT_GT(relative({0, 0}, {1, 0}), 1e20);
}

TEST(Difference, HoldsTheGreatestFloats) {
  EXPECT_TRUE(std::isfinite(relative({0.25F}, {3.4e38F})));
}

TEST(Difference, IsNoNumberWhenAValueIsNone) {
  const float nan = std::numeric_limits<float>::quiet_NaN();
  EXPECT_TRUE(std::isnan(relative({1, nan}, {1, nan})));
  EXPECT_TRUE(std::isnan(relative({1, 2}, {1, nan})));
}

// The root with its missing keys, and which those are.
std::pair<Bytes, std::vector<std::string>> restored(const Bytes& root, const Bytes& original) {
  std::vector<std::string> keys;
  FileImage image(make_copy(root_tag(root.data(), root.size())));
  image = restore_root_keys(std::move(image), root_tag(original.data(), original.size()), keys);
  return {Bytes(image.get(), image.get() + element_bytes(image.get())), keys};
}

TEST(RestoreRootKeys, AddsWhatIsMissingInTheOrderOfTheOriginal) {
  const Bytes original = Dictionary()
                             .add("need_crop", 0)
                             .add("layout", "BCHW")
                             .add("card", Dictionary().add("author", "somebody"));
  const auto [root, keys] = restored(Dictionary().add("layout", "BHWC"), original);
  EXPECT_EQ(root, Dictionary()
                      .add("layout", "BHWC")
                      .add("need_crop", 0)
                      .add("card", Dictionary().add("author", "somebody"))
                      .bytes());
  EXPECT_EQ(keys, (std::vector<std::string>{"need_crop", "card"}));
}

TEST(RestoreRootKeys, OfAKeyThatIsThereTwiceTheLastCounts) {
  const auto [root, keys] = restored(Dictionary(), Dictionary().add("a", 1).add("a", 2));
  EXPECT_EQ(root, Dictionary().add("a", 2).bytes());
  EXPECT_EQ(keys, std::vector<std::string>{"a"});
}

TEST(RestoreRootKeys, ACompleteRootStaysAsItIs) {
  const Bytes root = Dictionary().add("a", 1);
  EXPECT_EQ(restored(root, Dictionary().add("a", 2)).first, root);
}

TEST(RestoreRootKeys, ElementsOfUnknownTypesSurvive) {
  const Bytes original = Dictionary().add("odd", element(77, {1, 2, 3}));
  EXPECT_EQ(restored(Dictionary(), original).first, original);
}

}  // namespace
}  // namespace ravu::test
