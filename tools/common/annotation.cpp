// All borders first, then all texts: no line crosses a name.
#include "common/annotation.h"

#include <algorithm>
#include <cmath>
#include <iterator>

#include "common/font.h"

namespace ravu::tools {
namespace {

constexpr Colour kColours[] = {
    {230, 25, 75},  {60, 180, 75},   {255, 225, 25}, {0, 110, 220},   {245, 130, 48},
    {145, 30, 180}, {70, 240, 240},  {240, 50, 230}, {190, 240, 60},  {0, 128, 128},
    {170, 110, 40}, {255, 170, 200}, {128, 0, 0},    {170, 255, 195}, {60, 60, 160},
};

// Picture pixels for each dot of a letter.
std::uint32_t text_scale(const Picture& picture) {
  constexpr std::uint32_t kPixelsPerDot = 200;  // of the shorter side
  return std::max(1U, std::min(picture.width, picture.height) / kPixelsPerDot);
}

PixelBox whole_pixels(const Mark& mark) {
  const auto left = static_cast<std::int64_t>(std::floor(mark.left));
  const auto top = static_cast<std::int64_t>(std::floor(mark.top));
  const auto right = static_cast<std::int64_t>(std::ceil(mark.right));
  const auto bottom = static_cast<std::int64_t>(std::ceil(mark.bottom));
  return {left, top, std::max(right, left + 1), std::max(bottom, top + 1)};
}

bool overlap(const PixelBox& a, const PixelBox& b) {
  return a.left < b.right && b.left < a.right && a.top < b.bottom && b.top < a.bottom;
}

// Where a patch of this size goes: the first place at the box that lies in the picture and is free;
// the box's top left corner when there is none.
PixelBox place_patch(const Picture& picture, const PixelBox& box, std::int64_t width,
                     std::int64_t height, const std::vector<PixelBox>& taken) {
  const std::int64_t room = std::max<std::int64_t>(0, picture.width - width);
  const auto at = [&](std::int64_t x, std::int64_t y) {
    const std::int64_t left = std::clamp<std::int64_t>(x, 0, room);
    return PixelBox{left, y, left + width, y + height};
  };
  const std::int64_t right = box.right - width;
  const PixelBox places[] = {
      at(box.left, box.top - height),
      at(right, box.top - height),
      at(box.left, box.bottom),
      at(right, box.bottom),
      at(box.left, box.top),
      at(right, box.top),
      at(box.left, box.bottom - height),
      at(right, box.bottom - height),
  };
  for (const PixelBox& place : places) {
    if (place.top < 0 || place.bottom > picture.height) continue;
    const auto meets = [&](const PixelBox& other) { return overlap(place, other); };
    if (std::none_of(taken.begin(), taken.end(), meets)) return place;
  }
  return at(box.left, box.top);
}

Colour readable_on(Colour colour) {
  // Luma as in ITU-R BT.601, in thousandths.
  const int luma = 299 * colour.red + 587 * colour.green + 114 * colour.blue;
  return luma > 128'000 ? kBlack : kWhite;
}

}  // namespace

Colour class_colour(std::uint32_t index) {
  return kColours[index % std::size(kColours)];
}

void draw_marks(Picture& picture, const std::vector<Mark>& marks) {
  const std::uint32_t scale = text_scale(picture);
  const std::int64_t thickness = std::int64_t{scale} + 1;
  for (auto mark = marks.rbegin(); mark != marks.rend(); ++mark) {
    draw_border(picture, whole_pixels(*mark), thickness, mark->colour);
  }
  std::vector<PixelBox> taken;
  for (const Mark& mark : marks) {
    const std::string text = drawable(mark.text);
    const std::int64_t width = text_width(text, scale) + 2 * std::int64_t{scale};
    const std::int64_t height = (kGlyphHeight + 2) * std::int64_t{scale};
    const PixelBox patch = place_patch(picture, whole_pixels(mark), width, height, taken);
    fill_box(picture, patch, mark.colour);
    draw_text(picture, patch.left + scale, patch.top + scale, scale, readable_on(mark.colour),
              text);
    taken.push_back(patch);
  }
}

}  // namespace ravu::tools
