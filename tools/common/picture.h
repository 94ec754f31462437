// An image in memory: what the file readers deliver and what the contact sheet is drawn on.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

namespace ravu::tools {

struct Picture {
  std::uint32_t width = 0;
  std::uint32_t height = 0;
  std::vector<std::uint8_t> rgb;  // rows from top to bottom, three bytes a pixel
};

inline std::size_t pixels_of(const Picture& picture) {
  return std::size_t{picture.width} * picture.height;
}

}  // namespace ravu::tools
