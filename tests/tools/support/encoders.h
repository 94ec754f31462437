// Image files made by the test itself, straight through libpng and libjpeg.
#pragma once

#include <png.h>

#include <cstdint>
#include <vector>

#include "common/picture.h"
#include "support/ModelBuilder.h"

namespace ravu::test {

// A picture of one colour.
tools::Picture solid(std::uint32_t width, std::uint32_t height, std::uint8_t red,
                     std::uint8_t green, std::uint8_t blue);

// A picture of seeded noise.
tools::Picture noise(std::uint32_t width, std::uint32_t height, unsigned seed);

struct PngForm {
  std::uint32_t width = 1, height = 1;
  int depth = 8;
  int colour_type = PNG_COLOR_TYPE_RGB;
  bool interlaced = false;
  std::vector<png_color> palette = {};
  Bytes palette_alpha = {};  // one entry per palette colour, or none
};

// `rows` are the raw rows of the file, one after another, as libpng takes them.
Bytes encode_png(const PngForm& form, const Bytes& rows);
Bytes encode_png(const tools::Picture& picture);

struct JpegForm {
  int components = 3;  // 1 grey, 3 RGB, 4 CMYK as an image editor writes it (inverted, marked)
  bool progressive = false;
};

// Quality 95, no subsampling of colours. `pixels` has `components` bytes for each pixel.
Bytes encode_jpeg(std::uint32_t width, std::uint32_t height, const Bytes& pixels,
                  const JpegForm& form = {});
Bytes encode_jpeg(const tools::Picture& picture, const JpegForm& form = {});

}  // namespace ravu::test
