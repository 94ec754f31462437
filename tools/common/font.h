// A small bitmap font for what the program draws: the printable ASCII characters.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "common/drawing.h"

namespace ravu::tools {

inline constexpr std::uint32_t kGlyphWidth = 5;
inline constexpr std::uint32_t kGlyphHeight = 7;

// The text as the font can show it: each UTF-8 character that it has no glyph for becomes "?".
std::string drawable(std::string_view text);

// Pixels that a drawable text takes from left to right.
std::uint32_t text_width(std::string_view text, std::uint32_t scale);

// Draws the text with its top left corner at (x, y), each glyph pixel a square of `scale` pixels.
// What lies outside the picture is cut off.
void draw_text(Picture& picture, std::int64_t x, std::int64_t y, std::uint32_t scale, Colour colour,
               std::string_view text);

}  // namespace ravu::tools
