// JPEG through libjpeg-turbo.
#include <csetjmp>
#include <cstdio>

// The order matters: it needs FILE before it, and the error codes depend on its settings.
#include <jpeglib.h>

#include <jerror.h>

#include "common/failure.h"
#include "common/image_codecs.h"

namespace ravu::tools {
namespace {

// A progressive file may repeat scans without end; each costs a pass over the whole picture.
constexpr int kMaxScans = 500;

struct JpegReader {
  explicit JpegReader(std::span<const std::uint8_t> bytes) : file(bytes) {}
  JpegReader(const JpegReader&) = delete;
  JpegReader& operator=(const JpegReader&) = delete;
  ~JpegReader() { jpeg_destroy_decompress(&info); }

  jpeg_decompress_struct info{};
  jpeg_error_mgr errors{};
  jpeg_progress_mgr progress{};
  std::jmp_buf way_out;
  char message[JMSG_LENGTH_MAX] = "";
  std::span<const std::uint8_t> file;
  std::uint8_t* pixels = nullptr;
};

void give_up(j_common_ptr info) {
  auto& reader = *static_cast<JpegReader*>(info->client_data);
  reader.errors.format_message(info, reader.message);
  std::longjmp(reader.way_out, 1);
}

// libjpeg fills in what is missing and only warns. A picture with missing parts is an error here;
// stray bytes between the parts, which many cameras write, are not.
void judge_warning(j_common_ptr info, int level) {
  if (level >= 0) return;
  switch (info->err->msg_code) {
    case JWRN_JPEG_EOF:
    case JWRN_HIT_MARKER:
    case JWRN_HUFF_BAD_CODE:
    case JWRN_ARITH_BAD_CODE:
    case JWRN_MUST_RESYNC:
      give_up(info);
      break;
    default:
      break;
  }
}

void watch_scans(j_common_ptr info) {
  auto& reader = *static_cast<JpegReader*>(info->client_data);
  if (reader.info.input_scan_number <= kMaxScans) return;
  std::snprintf(reader.message, sizeof reader.message, "the JPEG file has too many scans");
  std::longjmp(reader.way_out, 1);
}

// Runs one step below the point that libjpeg jumps to; throws what it complained about.
void guarded(JpegReader& reader, void (*step)(JpegReader&)) {
  if (setjmp(reader.way_out) == 0) {
    step(reader);
    return;
  }
  throw Failure(reader.message);
}

void read_header(JpegReader& reader) {
  jpeg_create_decompress(&reader.info);
  jpeg_mem_src(&reader.info, reader.file.data(), static_cast<unsigned long>(reader.file.size()));
  jpeg_read_header(&reader.info, TRUE);
  const J_COLOR_SPACE stored = reader.info.jpeg_color_space;
  const bool four_inks = stored == JCS_CMYK || stored == JCS_YCCK;
  reader.info.out_color_space = four_inks ? JCS_CMYK : JCS_RGB;
  reader.progress.progress_monitor = watch_scans;
  reader.info.progress = &reader.progress;
}

void read_rows(JpegReader& reader) {
  jpeg_start_decompress(&reader.info);
  const std::size_t row = std::size_t{reader.info.output_width} *
                          static_cast<std::size_t>(reader.info.output_components);
  while (reader.info.output_scanline < reader.info.output_height) {
    JSAMPROW to = reader.pixels + reader.info.output_scanline * row;
    jpeg_read_scanlines(&reader.info, &to, 1);
  }
  jpeg_finish_decompress(&reader.info);
}

// Files from image editors, which carry their mark, store the inks inverted.
void inks_to_rgb(std::vector<std::uint8_t>& pixels, bool inverted) {
  const std::size_t n = pixels.size() / 4;
  const auto light = [&](std::uint8_t ink) { return inverted ? ink : 255 - ink; };
  for (std::size_t i = 0; i < n; ++i) {
    const int key = light(pixels[4 * i + 3]);
    for (std::size_t c = 0; c < 3; ++c) {
      pixels[3 * i + c] = static_cast<std::uint8_t>((light(pixels[4 * i + c]) * key + 127) / 255);
    }
  }
  pixels.resize(n * 3);
}

}  // namespace

Picture decode_jpeg(std::span<const std::uint8_t> file) {
  JpegReader reader(file);
  reader.info.err = jpeg_std_error(&reader.errors);
  reader.info.client_data = &reader;
  reader.errors.error_exit = give_up;
  reader.errors.emit_message = judge_warning;
  guarded(reader, read_header);
  check_picture_size(reader.info.image_width, reader.info.image_height);

  Picture picture;
  picture.width = reader.info.image_width;
  picture.height = reader.info.image_height;
  const bool four_inks = reader.info.out_color_space == JCS_CMYK;
  picture.rgb.resize(pixels_of(picture) * (four_inks ? 4 : 3));
  reader.pixels = picture.rgb.data();
  guarded(reader, read_rows);
  if (four_inks) inks_to_rgb(picture.rgb, /*inverted=*/reader.info.saw_Adobe_marker != FALSE);
  return picture;
}

}  // namespace ravu::tools
