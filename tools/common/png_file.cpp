// PNG through libpng. Everything is read as 8-bit RGBA, which the transparency is then taken from.
#include <png.h>

#include <algorithm>
#include <csetjmp>
#include <cstdio>
#include <cstring>

#include "common/failure.h"
#include "common/image_codecs.h"

namespace ravu::tools {
namespace {

struct PngReader {
  explicit PngReader(std::span<const std::uint8_t> bytes) : left(bytes) {}
  PngReader(const PngReader&) = delete;
  PngReader& operator=(const PngReader&) = delete;
  ~PngReader() { png_destroy_read_struct(&png, &info, nullptr); }

  png_structp png = nullptr;
  png_infop info = nullptr;
  std::span<const std::uint8_t> left;  // what has not been read yet
  char message[128] = "";
  std::uint8_t* pixels = nullptr;
};

struct PngWriter {
  PngWriter() = default;
  PngWriter(const PngWriter&) = delete;
  PngWriter& operator=(const PngWriter&) = delete;
  ~PngWriter() { png_destroy_write_struct(&png, &info); }

  png_structp png = nullptr;
  png_infop info = nullptr;
  const Picture* picture = nullptr;
  std::vector<std::uint8_t> file;
  bool out_of_memory = false;
  char message[128] = "";
};

template <class State>
void give_up(png_structp png, png_const_charp text) {
  auto& state = *static_cast<State*>(png_get_error_ptr(png));
  std::snprintf(state.message, sizeof state.message, "%s", text);
  png_longjmp(png, 1);
}

void ignore_warning(png_structp, png_const_charp) {}

// Runs one step below the point that libpng jumps to; throws what it complained about.
template <class State>
void guarded(State& state, void (*step)(State&)) {
  if (state.png == nullptr) throw Failure("out of memory");
  if (setjmp(png_jmpbuf(state.png)) == 0) {
    step(state);
    return;
  }
  throw Failure(state.message);
}

void take_bytes(png_structp png, png_bytep to, std::size_t n) {
  auto& reader = *static_cast<PngReader*>(png_get_io_ptr(png));
  if (n > reader.left.size()) png_error(png, "the PNG file ends early");
  std::memcpy(to, reader.left.data(), n);
  reader.left = reader.left.subspan(n);
}

void read_header(PngReader& reader) {
  reader.info = png_create_info_struct(reader.png);
  if (reader.info == nullptr) png_error(reader.png, "out of memory");
  png_set_read_fn(reader.png, &reader, take_bytes);
  // check_picture_size has the last word on sizes.
  png_set_user_limits(reader.png, PNG_UINT_31_MAX, PNG_UINT_31_MAX);
  png_read_info(reader.png, reader.info);
}

void read_rows(PngReader& reader) {
  png_set_expand(reader.png);
  png_set_scale_16(reader.png);
  png_set_gray_to_rgb(reader.png);
  png_set_add_alpha(reader.png, 0xFF, PNG_FILLER_AFTER);
  const int passes = png_set_interlace_handling(reader.png);
  png_read_update_info(reader.png, reader.info);
  const std::size_t row = std::size_t{4} * png_get_image_width(reader.png, reader.info);
  const std::size_t height = png_get_image_height(reader.png, reader.info);
  if (png_get_rowbytes(reader.png, reader.info) != row) png_error(reader.png, "unknown PNG kind");
  for (int pass = 0; pass < passes; ++pass) {
    for (std::size_t y = 0; y < height; ++y) {
      png_read_row(reader.png, reader.pixels + y * row, nullptr);
    }
  }
  png_read_end(reader.png, nullptr);
}

void lay_on_white(std::vector<std::uint8_t>& pixels) {
  const std::size_t n = pixels.size() / 4;
  for (std::size_t i = 0; i < n; ++i) {
    const int alpha = pixels[4 * i + 3];
    for (std::size_t c = 0; c < 3; ++c) {
      const int value = pixels[4 * i + c] * alpha + 255 * (255 - alpha);
      pixels[3 * i + c] = static_cast<std::uint8_t>((value + 127) / 255);
    }
  }
  pixels.resize(n * 3);
}

void append_bytes(png_structp png, png_bytep from, std::size_t n) {
  auto& writer = *static_cast<PngWriter*>(png_get_io_ptr(png));
  try {
    writer.file.insert(writer.file.end(), from, from + n);
    return;
  } catch (const std::bad_alloc&) {
    writer.out_of_memory = true;
  }
  // Outside the handler, which must not be left by a jump.
  if (writer.out_of_memory) png_error(png, "out of memory");
}

void flush_nothing(png_structp) {}

void write_all(PngWriter& writer) {
  writer.info = png_create_info_struct(writer.png);
  if (writer.info == nullptr) png_error(writer.png, "out of memory");
  png_set_write_fn(writer.png, &writer, append_bytes, flush_nothing);
  const Picture& picture = *writer.picture;
  png_set_IHDR(writer.png, writer.info, picture.width, picture.height, 8, PNG_COLOR_TYPE_RGB,
               PNG_INTERLACE_NONE, PNG_COMPRESSION_TYPE_DEFAULT, PNG_FILTER_TYPE_DEFAULT);
  png_write_info(writer.png, writer.info);
  for (std::size_t y = 0; y < picture.height; ++y) {
    png_write_row(writer.png, picture.rgb.data() + y * picture.width * 3);
  }
  png_write_end(writer.png, writer.info);
}

}  // namespace

Picture decode_png(std::span<const std::uint8_t> file) {
  PngReader reader(file);
  reader.png =
      png_create_read_struct(PNG_LIBPNG_VER_STRING, &reader, give_up<PngReader>, ignore_warning);
  guarded(reader, read_header);
  Picture picture;
  picture.width = png_get_image_width(reader.png, reader.info);
  picture.height = png_get_image_height(reader.png, reader.info);
  check_picture_size(picture.width, picture.height);

  picture.rgb.resize(pixels_of(picture) * 4);
  reader.pixels = picture.rgb.data();
  guarded(reader, read_rows);
  lay_on_white(picture.rgb);
  return picture;
}

std::vector<std::uint8_t> encode_png(const Picture& picture) {
  PngWriter writer;
  writer.picture = &picture;
  writer.png =
      png_create_write_struct(PNG_LIBPNG_VER_STRING, &writer, give_up<PngWriter>, ignore_warning);
  guarded(writer, write_all);
  return std::move(writer.file);
}

}  // namespace ravu::tools
