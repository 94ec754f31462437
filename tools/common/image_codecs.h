// What image_file.cpp and the two format files share.
//
// libjpeg and libpng leave by longjmp when something is wrong, past every frame in between. So each
// format file keeps all state in one reader record outside, and calls the library only from small
// step functions that hold plain values and run below one setjmp.
#pragma once

#include "common/image_file.h"

namespace ravu::tools {

Picture decode_jpeg(std::span<const std::uint8_t> file);
Picture decode_png(std::span<const std::uint8_t> file);
std::vector<std::uint8_t> encode_png(const Picture& picture);

// Throws Failure when a picture of this size is refused.
void check_picture_size(std::uint64_t width, std::uint64_t height);

}  // namespace ravu::tools
