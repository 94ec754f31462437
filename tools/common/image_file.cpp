// Files in and out, and the choice of the format by its first bytes.
#include "common/image_file.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>

#include "common/failure.h"
#include "common/image_codecs.h"

namespace ravu::tools {
namespace {

struct CloseFile {
  void operator()(std::FILE* file) const { std::fclose(file); }
};
using File = std::unique_ptr<std::FILE, CloseFile>;

std::vector<std::uint8_t> read_file(const std::string& path) {
  const File file(std::fopen(path.c_str(), "rb"));
  if (!file) throw Failure(std::strerror(errno));
  constexpr std::size_t kPiece = std::size_t{1} << 20;
  std::vector<std::uint8_t> bytes;
  std::size_t got = kPiece;
  while (got == kPiece) {
    const std::size_t size = bytes.size();
    if (size >= kMaxFileBytes) throw Failure("the file is larger than 256 MiB");
    bytes.resize(size + kPiece);
    got = std::fread(bytes.data() + size, 1, kPiece, file.get());
    bytes.resize(size + got);
  }
  if (std::ferror(file.get()) != 0) throw Failure(std::strerror(errno));
  return bytes;
}

constexpr std::array<std::uint8_t, 3> kJpeg{0xFF, 0xD8, 0xFF};
constexpr std::array<std::uint8_t, 8> kPng{0x89, 'P', 'N', 'G', '\r', '\n', 0x1A, '\n'};

template <std::size_t N>
bool starts_with(std::span<const std::uint8_t> file, const std::array<std::uint8_t, N>& magic) {
  return file.size() >= N && std::equal(magic.begin(), magic.end(), file.begin());
}

}  // namespace

void check_picture_size(std::uint64_t width, std::uint64_t height) {
  if (width == 0 || height == 0) throw Failure("the picture has no pixels");
  if (width <= kMaxSide && height <= kMaxSide && width * height <= kMaxPixels) return;
  throw Failure("the picture is too large: " + std::to_string(width) + " x " +
                std::to_string(height) + " pixels, at most 64 megapixels are read");
}

bool is_picture_file(const std::string& path) {
  const File file(std::fopen(path.c_str(), "rb"));
  if (!file) return false;
  std::array<std::uint8_t, kPng.size()> start{};
  const std::span<const std::uint8_t> got(start.data(),
                                          std::fread(start.data(), 1, start.size(), file.get()));
  return starts_with(got, kJpeg) || starts_with(got, kPng);
}

Picture decode_picture(std::span<const std::uint8_t> file) {
  if (starts_with(file, kJpeg)) return decode_jpeg(file);
  if (starts_with(file, kPng)) return decode_png(file);
  throw Failure(file.empty() ? "the file is empty" : "not a JPEG or PNG image");
}

Picture read_picture(const std::string& path) {
  return decode_picture(read_file(path));
}

void write_png(const std::string& path, const Picture& picture) {
  const auto bytes = encode_png(picture);
  File file(std::fopen(path.c_str(), "wb"));
  if (!file) throw Failure("cannot write " + path + ": " + std::strerror(errno));
  const bool written = std::fwrite(bytes.data(), 1, bytes.size(), file.get()) == bytes.size();
  const bool closed = std::fclose(file.release()) == 0;
  if (!written || !closed) throw Failure("cannot write " + path + ": " + std::strerror(errno));
}

}  // namespace ravu::tools
