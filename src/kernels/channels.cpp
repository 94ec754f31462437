// Groups of channels out of pixels and back. Groups of one channel are a matrix turned over; of
// others every pixel's few channels are copied, and threads take runs of pixels.
#include <algorithm>

#include "kernels/kernels.h"
#include "kernels/workers.h"

namespace ravu::kernels {
namespace {

// Pixels that one thread takes at a time.
constexpr std::size_t kRunPixels = 64;

// How far the next pixel and the next group are.
struct Place {
  std::size_t pixel, group;
};

// Copies `run` floats for each pixel of each group.
void copy_runs(const float* from, Place source, float* to, Place target, std::size_t pixels,
               std::size_t groups, std::size_t run, Workers& workers) {
  workers.run((pixels + kRunPixels - 1) / kRunPixels, [&](std::size_t i, std::size_t) {
    const std::size_t last = std::min((i + 1) * kRunPixels, pixels);
    for (std::size_t p = i * kRunPixels; p < last; ++p) {
      for (std::size_t g = 0; g < groups; ++g) {
        std::copy_n(from + p * source.pixel + g * source.group, run,
                    to + p * target.pixel + g * target.group);
      }
    }
  });
}

}  // namespace

void split_channels(const float* input, std::size_t pixels, std::size_t channels,
                    std::size_t groups, std::size_t group_channels, float* slices,
                    Workers& workers) {
  if (group_channels == 1) {
    transpose(input, channels, pixels, groups, slices, pixels, workers);
    return;
  }
  copy_runs(input, {channels, group_channels}, slices, {group_channels, pixels * group_channels},
            pixels, groups, group_channels, workers);
}

void interleave_channels(const float* staging, std::size_t group_stride, std::size_t pixels,
                         std::size_t groups, std::size_t group_channels, float* output,
                         Workers& workers) {
  if (group_channels == 1) {
    transpose(staging, group_stride, groups, pixels, output, groups, workers);
    return;
  }
  copy_runs(staging, {group_channels, group_stride}, output,
            {groups * group_channels, group_channels}, pixels, groups, group_channels, workers);
}

}  // namespace ravu::kernels
