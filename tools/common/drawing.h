// Plain shapes on a picture. What lies outside the picture is cut off.
#pragma once

#include <cstdint>

#include "common/picture.h"

namespace ravu::tools {

struct Colour {
  std::uint8_t red, green, blue;
};
inline constexpr Colour kBlack{0, 0, 0};
inline constexpr Colour kWhite{255, 255, 255};

// Whole pixels; right and bottom are the first ones that do not belong to it.
struct PixelBox {
  std::int64_t left, top, right, bottom;
};

void fill_box(Picture& picture, const PixelBox& box, Colour colour);

// The border of the box, `thickness` pixels wide, inside it.
void draw_border(Picture& picture, const PixelBox& box, std::int64_t thickness, Colour colour);

}  // namespace ravu::tools
