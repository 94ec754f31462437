// All tiles have one size; the page is as wide as its longest row.
#include "common/contact_sheet.h"

#include <algorithm>
#include <cmath>

#include "common/font.h"
#include "common/resize.h"

namespace ravu::tools {
namespace {

constexpr std::uint32_t kMaxColumns = 8;
constexpr std::uint32_t kGap = 12;
constexpr std::uint32_t kTextScale = 2;
constexpr std::uint32_t kLine = kGlyphHeight * kTextScale + 6;
constexpr std::uint32_t kBelow = 6 + 2 * kLine + kGap;  // what a tile takes under its picture

std::string cut_to_tile(const std::string& text, std::uint32_t side) {
  const std::size_t letters = (side / kTextScale + 1) / (kGlyphWidth + 1);
  std::string line = drawable(text);
  if (line.size() > letters) line.replace(letters - 3, std::string::npos, "...");
  return line;
}

void draw_tile(Picture& page, std::uint32_t x, std::uint32_t y, const Tile& tile) {
  const std::uint32_t side = tile.picture.width;
  for (std::size_t row = 0; row < tile.picture.height; ++row) {
    std::copy_n(tile.picture.rgb.data() + row * tile.picture.width * 3, tile.picture.width * 3,
                page.rgb.data() + ((y + row) * page.width + x) * 3);
  }
  std::uint32_t text_y = y + side + 6;
  for (const std::string& line : {tile.title, tile.subtitle}) {
    const std::string text = cut_to_tile(line, side);
    const std::uint32_t indent = (side - text_width(text, kTextScale)) / 2;
    draw_text(page, x + indent, text_y, kTextScale, kBlack, text);
    text_y += kLine;
  }
}

}  // namespace

Picture make_thumbnail(const Picture& picture, std::uint32_t side) {
  return to_picture(frame(picture, side, side, Framing::kLetterbox, /*fill=*/255.0F), side, side);
}

Picture draw_contact_sheet(const std::vector<Tile>& tiles, std::uint32_t side) {
  const auto n = static_cast<std::uint32_t>(tiles.size());
  const auto square = static_cast<std::uint32_t>(std::ceil(std::sqrt(n)));
  const std::uint32_t columns = std::clamp<std::uint32_t>(square, 1, kMaxColumns);
  const std::uint32_t rows = std::max<std::uint32_t>(1, (n + columns - 1) / columns);
  Picture page;
  page.width = columns * (side + kGap) + kGap;
  page.height = rows * (side + kBelow) + kGap;
  page.rgb.assign(pixels_of(page) * 3, 255);
  for (std::uint32_t i = 0; i < n; ++i) {
    draw_tile(page, kGap + i % columns * (side + kGap), kGap + i / columns * (side + kBelow),
              tiles[i]);
  }
  return page;
}

}  // namespace ravu::tools
