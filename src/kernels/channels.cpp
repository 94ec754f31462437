// Groups of channels out of pixels and back. A group's channels are few and lie far apart, so both
// directions go through the pixels in blocks that stay in the cache.
#include <algorithm>

#include "kernels/kernels.h"

namespace ravu::kernels {
namespace {

constexpr std::size_t kBlockPixels = 64;

// Calls move(pixel, group) for each pair, block of pixels by block.
template <class Move>
void for_each_run(std::size_t pixels, std::size_t groups, Move move) {
  for (std::size_t start = 0; start < pixels; start += kBlockPixels) {
    const std::size_t end = std::min(start + kBlockPixels, pixels);
    for (std::size_t g = 0; g < groups; ++g) {
      for (std::size_t p = start; p < end; ++p) move(p, g);
    }
  }
}

}  // namespace

void split_channels(const float* input, std::size_t pixels, std::size_t channels,
                    std::size_t groups, std::size_t group_channels, float* slices) {
  for_each_run(pixels, groups, [=](std::size_t p, std::size_t g) {
    std::copy_n(input + p * channels + g * group_channels, group_channels,
                slices + (g * pixels + p) * group_channels);
  });
}

void interleave_channels(const float* staging, std::size_t group_stride, std::size_t pixels,
                         std::size_t groups, std::size_t group_channels, float* output) {
  for_each_run(pixels, groups, [=](std::size_t p, std::size_t g) {
    std::copy_n(staging + g * group_stride + p * group_channels, group_channels,
                output + (p * groups + g) * group_channels);
  });
}

}  // namespace ravu::kernels
