// Groups of channels out of pixels and back. Groups of one channel are a matrix turned over; of
// others every pixel's few channels are copied.
#include <algorithm>

#include "kernels/kernels.h"

namespace ravu::kernels {
namespace {

// How far the next pixel and the next group are.
struct Place {
  std::size_t pixel, group;
};

// Copies `run` floats for each pixel of each group.
void copy_runs(const float* from, Place source, float* to, Place target, std::size_t pixels,
               std::size_t groups, std::size_t run) {
  for (std::size_t p = 0; p < pixels; ++p) {
    for (std::size_t g = 0; g < groups; ++g) {
      std::copy_n(from + p * source.pixel + g * source.group, run,
                  to + p * target.pixel + g * target.group);
    }
  }
}

}  // namespace

void split_channels(const float* input, std::size_t pixels, std::size_t channels,
                    std::size_t groups, std::size_t group_channels, float* slices) {
  if (group_channels == 1) {
    transpose(input, channels, pixels, groups, slices, pixels);
    return;
  }
  copy_runs(input, {channels, group_channels}, slices, {group_channels, pixels * group_channels},
            pixels, groups, group_channels);
}

void interleave_channels(const float* staging, std::size_t group_stride, std::size_t pixels,
                         std::size_t groups, std::size_t group_channels, float* output,
                         std::size_t channels) {
  if (group_channels == 1) {
    transpose(staging, group_stride, groups, pixels, output, channels);
    return;
  }
  copy_runs(staging, {group_channels, group_stride}, output, {channels, group_channels}, pixels,
            groups, group_channels);
}

}  // namespace ravu::kernels
