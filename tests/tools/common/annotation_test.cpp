// Where boxes and their names come to lie. The patch of a name is of the mark's colour.
#include "common/annotation.h"

#include <gtest/gtest.h>

#include "common/font.h"
#include "support/encoders.h"

namespace ravu::test {
namespace {

using namespace tools;

constexpr Colour kRed{255, 0, 0};
constexpr Colour kBlue{0, 0, 255};
constexpr std::int64_t kPatchHeight = 9;  // in a picture this small

Colour colour_at(const Picture& picture, std::int64_t x, std::int64_t y) {
  const auto* pixel = &picture.rgb[static_cast<std::size_t>(y * picture.width + x) * 3];
  return {pixel[0], pixel[1], pixel[2]};
}

bool is(Colour a, Colour b) {
  return a.red == b.red && a.green == b.green && a.blue == b.blue;
}

Picture page() {
  return solid(100, 100, 255, 255, 255);
}

TEST(DrawMarks, DrawsTheBorderAndLeavesTheInside) {
  Picture picture = page();
  draw_marks(picture, {{30, 40, 70, 80, "a", kRed}});
  EXPECT_TRUE(is(colour_at(picture, 30, 60), kRed));
  EXPECT_TRUE(is(colour_at(picture, 69, 60), kRed));
  EXPECT_TRUE(is(colour_at(picture, 50, 40), kRed));
  EXPECT_TRUE(is(colour_at(picture, 50, 79), kRed));
  EXPECT_TRUE(is(colour_at(picture, 50, 60), kWhite));
  EXPECT_TRUE(is(colour_at(picture, 29, 60), kWhite));
  EXPECT_TRUE(is(colour_at(picture, 70, 60), kWhite));
}

TEST(DrawMarks, TheNameStandsAboveItsBox) {
  Picture picture = page();
  draw_marks(picture, {{30, 40, 70, 80, "T", kRed}});
  EXPECT_TRUE(is(colour_at(picture, 30, 40 - kPatchHeight), kRed));
  EXPECT_TRUE(is(colour_at(picture, 31, 40 - kPatchHeight + 1), kWhite));  // the bar of the T
  EXPECT_TRUE(is(colour_at(picture, 31 + kGlyphWidth, 35), kRed));
  EXPECT_TRUE(is(colour_at(picture, 30, 39 - kPatchHeight), kWhite));
}

TEST(DrawMarks, WithoutRoomAboveTheNameStandsBelow) {
  Picture picture = page();
  draw_marks(picture, {{30, 3, 70, 60, "T", kRed}});
  EXPECT_TRUE(is(colour_at(picture, 30, 60), kRed));
  EXPECT_TRUE(is(colour_at(picture, 50, 30), kWhite));
}

TEST(DrawMarks, WithoutRoomAboveAndBelowTheNameStandsInside) {
  Picture picture = page();
  draw_marks(picture, {{30, 0, 70, 100, "T", kRed}});
  EXPECT_TRUE(is(colour_at(picture, 33, kPatchHeight - 1), kRed));
}

TEST(DrawMarks, ANameAtTheRightBorderMovesIntoThePicture) {
  Picture picture = page();
  draw_marks(picture, {{90, 40, 100, 60, "long name", kRed}});
  const auto width = static_cast<std::int64_t>(text_width("long name", 1)) + 2;
  EXPECT_TRUE(is(colour_at(picture, 100 - width, 40 - kPatchHeight), kRed));
  EXPECT_TRUE(is(colour_at(picture, 99 - width, 40 - kPatchHeight), kWhite));
}

TEST(DrawMarks, NamesOfOneBoxDoNotCoverEachOther) {
  Picture picture = page();
  draw_marks(picture, {{30, 40, 70, 80, "one", kRed}, {30, 40, 70, 80, "two", kBlue}});
  int red = 0, blue = 0;
  for (std::int64_t y = 0; y < 100; ++y) {
    for (std::int64_t x = 0; x < 100; ++x) {
      const bool outside = x < 30 || x >= 70 || y < 40 || y >= 80;
      red += outside && is(colour_at(picture, x, y), kRed) ? 1 : 0;
      blue += outside && is(colour_at(picture, x, y), kBlue) ? 1 : 0;
    }
  }
  EXPECT_GT(red, 100);
  EXPECT_GT(blue, 100);
}

TEST(DrawMarks, TheFirstMarkLiesOnTop) {
  Picture picture = page();
  draw_marks(picture, {{30, 40, 70, 80, "", kRed}, {30, 40, 70, 80, "", kBlue}});
  EXPECT_TRUE(is(colour_at(picture, 30, 60), kRed));
}

TEST(DrawMarks, LettersAreDarkOnLightColours) {
  Picture picture = page();
  draw_marks(picture, {{30, 40, 70, 80, "T", {255, 225, 25}}});
  EXPECT_TRUE(is(colour_at(picture, 31, 40 - kPatchHeight + 1), kBlack));
}

TEST(DrawMarks, LargePicturesGetLargeLetters) {
  Picture picture = solid(800, 400, 255, 255, 255);
  draw_marks(picture, {{100, 100, 300, 300, "T", kRed}});
  EXPECT_TRUE(is(colour_at(picture, 100, 100 - 2 * kPatchHeight), kRed));
  EXPECT_TRUE(is(colour_at(picture, 102, 100 - 2 * kPatchHeight + 2), kWhite));
}

TEST(DrawMarks, ABoxWithoutExtentStillShows) {
  Picture picture = page();
  draw_marks(picture, {{50, 50, 50, 50, "", kRed}});
  EXPECT_TRUE(is(colour_at(picture, 50, 50), kRed));
}

TEST(DrawMarks, APictureSmallerThanTheNameIsNoProblem) {
  Picture picture = solid(2, 2, 255, 255, 255);
  draw_marks(picture, {{0, 0, 2, 2, "a long name", kRed}});
  EXPECT_TRUE(is(colour_at(picture, 0, 0), kRed));
}

TEST(ClassColour, NeighboursDiffer) {
  for (std::uint32_t i = 0; i < 40; ++i) EXPECT_FALSE(is(class_colour(i), class_colour(i + 1)));
}

}  // namespace
}  // namespace ravu::test
