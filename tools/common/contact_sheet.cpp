// All tiles have one size; the page is as wide as its longest row.
#include "common/contact_sheet.h"

#include <algorithm>
#include <cmath>

#include "common/font.h"
#include "common/resize.h"

namespace ravu::tools {
namespace {

constexpr std::uint32_t kMaxColumns = 8;
constexpr std::uint32_t kSide = 216;  // of a picture
constexpr std::uint32_t kGap = 12;
constexpr std::uint32_t kTextScale = 2;
constexpr std::uint32_t kLine = kGlyphHeight * kTextScale + 6;
constexpr std::uint32_t kTileWidth = kSide + kGap;
constexpr std::uint32_t kTileHeight = kSide + 6 + 2 * kLine + kGap;

std::string cut_to_tile(const std::string& text) {
  constexpr std::size_t kLetters = (kSide / kTextScale + 1) / (kGlyphWidth + 1);
  std::string line = drawable(text);
  if (line.size() > kLetters) line.replace(kLetters - 3, std::string::npos, "...");
  return line;
}

void draw_tile(Picture& page, std::uint32_t x, std::uint32_t y, const Tile& tile) {
  for (std::size_t row = 0; row < tile.picture.height; ++row) {
    std::copy_n(tile.picture.rgb.data() + row * tile.picture.width * 3, tile.picture.width * 3,
                page.rgb.data() + ((y + row) * page.width + x) * 3);
  }
  std::uint32_t text_y = y + kSide + 6;
  for (const std::string& text : {cut_to_tile(tile.title), cut_to_tile(tile.subtitle)}) {
    const std::uint32_t indent = (kSide - text_width(text, kTextScale)) / 2;
    draw_text(page, x + indent, text_y, kTextScale, text);
    text_y += kLine;
  }
}

}  // namespace

Picture make_thumbnail(const Picture& picture) {
  return to_picture(frame(picture, kSide, kSide, Framing::kLetterbox, /*fill=*/255.0F), kSide,
                    kSide);
}

Picture draw_contact_sheet(const std::vector<Tile>& tiles) {
  const auto n = static_cast<std::uint32_t>(tiles.size());
  const auto square = static_cast<std::uint32_t>(std::ceil(std::sqrt(n)));
  const std::uint32_t columns = std::clamp<std::uint32_t>(square, 1, kMaxColumns);
  const std::uint32_t rows = std::max<std::uint32_t>(1, (n + columns - 1) / columns);
  Picture page;
  page.width = columns * kTileWidth + kGap;
  page.height = rows * kTileHeight + kGap;
  page.rgb.assign(pixels_of(page) * 3, 255);
  for (std::uint32_t i = 0; i < n; ++i) {
    draw_tile(page, kGap + i % columns * kTileWidth, kGap + i / columns * kTileHeight, tiles[i]);
  }
  return page;
}

}  // namespace ravu::tools
