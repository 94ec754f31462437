// The font and the page: places, sizes, cut text.
#include "common/contact_sheet.h"

#include <gtest/gtest.h>

#include <set>

#include "common/font.h"
#include "support/encoders.h"

namespace ravu::test {
namespace {

using namespace tools;

constexpr std::uint32_t kSide = 216;

bool is_black(const Picture& picture, std::uint32_t x, std::uint32_t y) {
  return picture.rgb[(std::size_t{y} * picture.width + x) * 3] == 0;
}

// The drawn text as lines of "#" and ".".
std::string drawn(std::string_view text, std::uint32_t width) {
  Picture page = solid(width, kGlyphHeight, 255, 255, 255);
  draw_text(page, 0, 0, 1, kBlack, text);
  std::string lines;
  for (std::uint32_t y = 0; y < page.height; ++y) {
    for (std::uint32_t x = 0; x < page.width; ++x) lines += is_black(page, x, y) ? '#' : '.';
    lines += '\n';
  }
  return lines;
}

TEST(Font, DrawsLettersSideBySide) {
  EXPECT_EQ(drawn("T1", 11),
            "#####...#..\n"
            "..#....##..\n"
            "..#...#.#..\n"
            "..#.....#..\n"
            "..#.....#..\n"
            "..#.....#..\n"
            "..#...#####\n");
}

TEST(Font, EveryPrintableCharacterHasAGlyphOfItsOwn) {
  std::set<std::string> glyphs;
  for (char c = ' '; c <= '~'; ++c) glyphs.insert(drawn(std::string(1, c), kGlyphWidth));
  EXPECT_EQ(glyphs.size(), 95U);
}

TEST(Font, OtherCharactersBecomeOneQuestionMarkEach) {
  EXPECT_EQ(drawable("caf\xC3\xA9 \xE2\x82\xAC\t"), "caf? ??");
}

TEST(Font, ScaleMakesEachDotASquare) {
  Picture page = solid(15, 21, 255, 255, 255);
  draw_text(page, 0, 0, 3, kBlack, "T");
  EXPECT_TRUE(is_black(page, 0, 2));
  EXPECT_TRUE(is_black(page, 14, 0));
  EXPECT_FALSE(is_black(page, 0, 3));
  EXPECT_TRUE(is_black(page, 8, 20));
}

TEST(Font, WhatLiesOutsideThePictureIsCutOff) {
  Picture page = solid(4, 4, 255, 255, 255);
  draw_text(page, 2, 2, 2, kBlack, "HH");
  EXPECT_TRUE(is_black(page, 2, 2));
}

TEST(Font, WidthCountsTheGapsBetweenLettersOnly) {
  EXPECT_EQ(text_width("", 2), 0U);
  EXPECT_EQ(text_width("a", 2), 10U);
  EXPECT_EQ(text_width("ab", 2), 22U);
}

TEST(ContactSheet, OneTileHoldsThePictureAndTheTextBelow) {
  const Picture red = solid(10, 10, 255, 0, 0);
  const Picture page = draw_contact_sheet({{make_thumbnail(red, kSide), "rose", "0.9"}}, kSide);
  const std::size_t centre = (std::size_t{120} * page.width + 120) * 3;
  EXPECT_EQ(page.rgb[centre], 255);
  EXPECT_EQ(page.rgb[centre + 1], 0);
  bool text = false;
  for (std::uint32_t y = 228; y < page.height; ++y) {
    for (std::uint32_t x = 0; x < page.width; ++x) text = text || is_black(page, x, y);
  }
  EXPECT_TRUE(text);
}

TEST(ContactSheet, LongTextsStayInTheirTile) {
  const Picture white = make_thumbnail(solid(4, 4, 255, 255, 255), kSide);
  const std::string title(100, 'W');
  const Picture one = draw_contact_sheet({{white, title, ""}}, kSide);
  for (std::uint32_t y = 0; y < one.height; ++y) {
    for (std::uint32_t x = 0; x < 12; ++x) ASSERT_FALSE(is_black(one, x, y));
    for (std::uint32_t x = one.width - 12; x < one.width; ++x) ASSERT_FALSE(is_black(one, x, y));
  }
}

TEST(ContactSheet, RowsHoldAtMostEightTiles) {
  const Tile tile{make_thumbnail(solid(2, 2, 1, 1, 1), kSide), "a", "b"};
  const Picture one = draw_contact_sheet({tile}, kSide);
  const Picture many = draw_contact_sheet(std::vector<Tile>(81, tile), kSide);
  EXPECT_EQ((many.width - 12) / (one.width - 12), 8U);
  EXPECT_EQ((many.height - 12) / (one.height - 12), 11U);
}

TEST(ContactSheet, WithoutTilesItIsAnEmptyPage) {
  EXPECT_GT(pixels_of(draw_contact_sheet({}, kSide)), 0U);
}

}  // namespace
}  // namespace ravu::test
