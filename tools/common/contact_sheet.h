// A page of small pictures, each with two lines of text below it.
#pragma once

#include <string>
#include <vector>

#include "common/picture.h"

namespace ravu::tools {

// More tiles than this make no page that anybody looks at.
inline constexpr std::size_t kMaxTiles = 500;

struct Tile {
  Picture picture;  // made by make_thumbnail
  std::string title;
  std::string subtitle;
};

// The picture in its proportions on a white square of `side` pixels, ready for a tile.
Picture make_thumbnail(const Picture& picture, std::uint32_t side);

// Lays the tiles out in rows, at most eight to a row; the pictures' side is the same in all. Text
// that is too long ends in "...". `side` is at least 100 pixels.
Picture draw_contact_sheet(const std::vector<Tile>& tiles, std::uint32_t side);

}  // namespace ravu::tools
