// Scaling a picture to the size that a network, or a tile of the contact sheet, wants.
#pragma once

#include <cstdint>
#include <vector>

#include "common/picture.h"

namespace ravu::tools {

// A part of a picture, inside its borders and not empty.
struct Region {
  std::uint32_t x, y, width, height;
};

Region whole(const Picture& picture);

// The region scaled to width x height: rows of RGB floats, 0..255, not rounded. The filter is a
// triangle that is two output pixels wide when shrinking, so that every pixel of the picture counts
// (no aliasing), and two picture pixels wide when enlarging, which is bilinear interpolation. Pixel
// centres lie at half-integers; at the border the weights that remain are scaled to sum 1.
std::vector<float> resize(const Picture& picture, const Region& region, std::uint32_t width,
                          std::uint32_t height);

// How a picture of other proportions fills a frame.
enum class Framing {
  kSquash,    // the whole picture, each side scaled by itself
  kCrop,      // the largest centred part with the frame's proportions
  kLetterbox  // the whole picture in its proportions, centred, the rest filled
};

// The picture brought to exactly width x height. `fill` is the grey level of letterbox borders.
std::vector<float> frame(const Picture& picture, std::uint32_t width, std::uint32_t height,
                         Framing framing, float fill);

// Where a frame of width x height lies in the picture that fills it, in the picture's pixels, the
// point (0, 0) being the picture's top left corner. Letterbox borders lie outside the picture.
struct Area {
  double x, y, width, height;
};
Area frame_area(const Picture& picture, std::uint32_t width, std::uint32_t height, Framing framing);

// Rounded to bytes.
Picture to_picture(const std::vector<float>& rgb, std::uint32_t width, std::uint32_t height);

}  // namespace ravu::tools
