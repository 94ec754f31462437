// Reading and writing image files. The content decides what a file is, never its name.
#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <vector>

#include "common/picture.h"

namespace ravu::tools {

// Larger pictures are refused as soon as their header is read.
inline constexpr std::uint32_t kMaxSide = 65535;
inline constexpr std::uint64_t kMaxPixels = 64'000'000;

// Larger files are refused.
inline constexpr std::size_t kMaxFileBytes = std::size_t{256} << 20;

// Whether the file can be read and begins as JPEG and PNG files do.
bool is_picture_file(const std::string& path);

// Reads a JPEG or PNG file as 8-bit RGB. Grey becomes RGB, 16 bits become 8, transparent pixels are
// laid on white, CMYK is converted; colour profiles, gamma and orientation marks are ignored. A
// file that is damaged or ends early is an error, not half a picture. Throws Failure with the
// reason, which does not name the path.
Picture read_picture(const std::string& path);
Picture decode_picture(std::span<const std::uint8_t> file);

// Writes a PNG file. Throws Failure.
void write_png(const std::string& path, const Picture& picture);

}  // namespace ravu::tools
