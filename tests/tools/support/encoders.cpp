// The encoders' own errors end the test program; the pictures given here are sound.
#include "support/encoders.h"

#include <cstdio>
#include <cstdlib>

// It needs FILE before it.
#include <jpeglib.h>

#include <algorithm>
#include <random>

namespace ravu::test {
namespace {

void append_bytes(png_structp png, png_bytep from, std::size_t n) {
  auto& file = *static_cast<Bytes*>(png_get_io_ptr(png));
  file.insert(file.end(), from, from + n);
}

void flush_nothing(png_structp) {}

void set_palette(png_structp png, png_infop info, const PngForm& form) {
  if (form.palette.empty()) return;
  png_set_PLTE(png, info, form.palette.data(), static_cast<int>(form.palette.size()));
  if (form.palette_alpha.empty()) return;
  png_set_tRNS(png, info, form.palette_alpha.data(), static_cast<int>(form.palette_alpha.size()),
               nullptr);
}

}  // namespace

tools::Picture solid(std::uint32_t width, std::uint32_t height, std::uint8_t red,
                     std::uint8_t green, std::uint8_t blue) {
  tools::Picture picture{width, height, {}};
  for (std::size_t i = 0; i < tools::pixels_of(picture); ++i) {
    picture.rgb.insert(picture.rgb.end(), {red, green, blue});
  }
  return picture;
}

tools::Picture noise(std::uint32_t width, std::uint32_t height, unsigned seed) {
  std::mt19937 generator(seed);
  tools::Picture picture{width, height, Bytes(std::size_t{width} * height * 3)};
  for (std::uint8_t& value : picture.rgb) value = static_cast<std::uint8_t>(generator());
  return picture;
}

Bytes encode_png(const PngForm& form, const Bytes& rows) {
  Bytes file;
  png_structp png = png_create_write_struct(PNG_LIBPNG_VER_STRING, nullptr, nullptr, nullptr);
  png_infop info = png_create_info_struct(png);
  png_set_write_fn(png, &file, append_bytes, flush_nothing);
  png_set_IHDR(png, info, form.width, form.height, form.depth, form.colour_type,
               form.interlaced ? PNG_INTERLACE_ADAM7 : PNG_INTERLACE_NONE,
               PNG_COMPRESSION_TYPE_DEFAULT, PNG_FILTER_TYPE_DEFAULT);
  set_palette(png, info, form);
  png_write_info(png, info);
  const std::size_t row = png_get_rowbytes(png, info);
  std::vector<png_bytep> pointers;
  for (std::size_t y = 0; y < form.height; ++y) {
    pointers.push_back(const_cast<png_bytep>(rows.data() + y * row));
  }
  png_write_image(png, pointers.data());
  png_write_end(png, info);
  png_destroy_write_struct(&png, &info);
  return file;
}

Bytes encode_png(const tools::Picture& picture) {
  PngForm form;
  form.width = picture.width;
  form.height = picture.height;
  return encode_png(form, picture.rgb);
}

Bytes encode_jpeg(std::uint32_t width, std::uint32_t height, const Bytes& pixels,
                  const JpegForm& form) {
  jpeg_compress_struct info{};
  jpeg_error_mgr errors{};
  info.err = jpeg_std_error(&errors);
  jpeg_create_compress(&info);
  unsigned char* buffer = nullptr;
  unsigned long size = 0;
  jpeg_mem_dest(&info, &buffer, &size);
  info.image_width = width;
  info.image_height = height;
  info.input_components = form.components;
  info.in_color_space = form.components == 1   ? JCS_GRAYSCALE
                        : form.components == 3 ? JCS_RGB
                                               : JCS_CMYK;
  jpeg_set_defaults(&info);
  jpeg_set_quality(&info, 95, TRUE);
  if (form.components == 4) info.write_Adobe_marker = TRUE;
  info.comp_info[0].h_samp_factor = info.comp_info[0].v_samp_factor = 1;
  if (form.progressive) jpeg_simple_progression(&info);
  jpeg_start_compress(&info, TRUE);
  const std::size_t row = std::size_t{width} * static_cast<std::size_t>(form.components);
  while (info.next_scanline < height) {
    auto* from = const_cast<JSAMPROW>(pixels.data() + info.next_scanline * row);
    jpeg_write_scanlines(&info, &from, 1);
  }
  jpeg_finish_compress(&info);
  jpeg_destroy_compress(&info);
  Bytes file(buffer, buffer + size);
  std::free(buffer);
  return file;
}

Bytes encode_jpeg(const tools::Picture& picture, const JpegForm& form) {
  return encode_jpeg(picture.width, picture.height, picture.rgb, form);
}

}  // namespace ravu::test
