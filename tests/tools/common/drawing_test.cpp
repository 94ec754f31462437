// Filled boxes and borders, pixel by pixel.
#include "common/drawing.h"

#include <gtest/gtest.h>

#include "support/encoders.h"

namespace ravu::test {
namespace {

using namespace tools;

// One character a pixel: "#" where something was drawn on white.
std::string shown(const Picture& picture) {
  std::string lines;
  for (std::uint32_t y = 0; y < picture.height; ++y) {
    for (std::uint32_t x = 0; x < picture.width; ++x) {
      lines += picture.rgb[(std::size_t{y} * picture.width + x) * 3] == 255 ? '.' : '#';
    }
    lines += '\n';
  }
  return lines;
}

TEST(FillBox, LeavesOutItsRightAndBottom) {
  Picture page = solid(4, 3, 255, 255, 255);
  fill_box(page, {1, 0, 3, 2}, kBlack);
  EXPECT_EQ(shown(page), ".##.\n.##.\n....\n");
}

TEST(FillBox, TakesTheColour) {
  Picture page = solid(1, 1, 255, 255, 255);
  fill_box(page, {0, 0, 1, 1}, {1, 2, 3});
  EXPECT_EQ(page.rgb, (Bytes{1, 2, 3}));
}

TEST(FillBox, WhatLiesOutsideIsCutOff) {
  Picture page = solid(3, 2, 255, 255, 255);
  fill_box(page, {-5, 1, 2, 9}, kBlack);
  fill_box(page, {7, 7, 9, 9}, kBlack);
  fill_box(page, {-9, -9, -7, -7}, kBlack);
  EXPECT_EQ(shown(page), "...\n##.\n");
}

TEST(DrawBorder, LeavesTheInsideFree) {
  Picture page = solid(5, 4, 255, 255, 255);
  draw_border(page, {0, 0, 5, 4}, 1, kBlack);
  EXPECT_EQ(shown(page), "#####\n#...#\n#...#\n#####\n");
}

TEST(DrawBorder, AThickOneFillsTheBoxAndNoMore) {
  Picture page = solid(5, 4, 255, 255, 255);
  draw_border(page, {1, 1, 4, 3}, 9, kBlack);
  EXPECT_EQ(shown(page), ".....\n.###.\n.###.\n.....\n");
}

}  // namespace
}  // namespace ravu::test
