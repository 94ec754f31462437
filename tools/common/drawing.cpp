// Everything that is drawn is made of filled boxes.
#include "common/drawing.h"

#include <algorithm>

namespace ravu::tools {

void fill_box(Picture& picture, const PixelBox& box, Colour colour) {
  const std::int64_t left = std::max<std::int64_t>(box.left, 0);
  const std::int64_t right = std::min<std::int64_t>(box.right, picture.width);
  const std::int64_t bottom = std::min<std::int64_t>(box.bottom, picture.height);
  for (std::int64_t y = std::max<std::int64_t>(box.top, 0); y < bottom; ++y) {
    for (std::int64_t x = left; x < right; ++x) {
      std::uint8_t* pixel = &picture.rgb[static_cast<std::size_t>(y * picture.width + x) * 3];
      pixel[0] = colour.red;
      pixel[1] = colour.green;
      pixel[2] = colour.blue;
    }
  }
}

void draw_border(Picture& picture, const PixelBox& box, std::int64_t thickness, Colour colour) {
  const std::int64_t inner_left = std::min(box.left + thickness, box.right);
  const std::int64_t inner_top = std::min(box.top + thickness, box.bottom);
  const std::int64_t inner_right = std::max(box.right - thickness, box.left);
  const std::int64_t inner_bottom = std::max(box.bottom - thickness, box.top);
  fill_box(picture, {box.left, box.top, box.right, inner_top}, colour);
  fill_box(picture, {box.left, inner_bottom, box.right, box.bottom}, colour);
  fill_box(picture, {box.left, box.top, inner_left, box.bottom}, colour);
  fill_box(picture, {inner_right, box.top, box.right, box.bottom}, colour);
}

}  // namespace ravu::tools
