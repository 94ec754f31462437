// Groups of channels out of pixels and back. A group's channels are few and lie far apart, so both
// directions go through the pixels in blocks that stay in the cache, and threads take runs of them.
#include <algorithm>

#include "kernels/kernels.h"
#include "kernels/workers.h"

namespace ravu::kernels {
namespace {

// Pixels and groups of a block: as many floats as a cache line holds. Pixels often lie a power of
// two apart, where few lines fit the cache at a time, so a block is done pixel by pixel.
constexpr std::size_t kBlock = 16;

// Pixels that one thread takes at a time.
constexpr std::size_t kRunPixels = 16 * kBlock;

// How far the next pixel and the next group are.
struct Place {
  std::size_t pixel, group;
};

// Copies `run` floats for each of the pixels [first, last) of each group.
void copy_blocks(const float* from, Place source, float* to, Place target, std::size_t first,
                 std::size_t last, std::size_t groups, std::size_t run) {
  const auto copy_pixel = [=](std::size_t p, std::size_t group, std::size_t end) {
    const float* read = from + p * source.pixel;
    float* write = to + p * target.pixel;
    if (run == 1) {  // a call for each float would take longer than the copy
      for (std::size_t g = group; g < end; ++g) write[g * target.group] = read[g * source.group];
    } else {
      for (std::size_t g = group; g < end; ++g) {
        std::copy_n(read + g * source.group, run, write + g * target.group);
      }
    }
  };
  for (std::size_t start = first; start < last; start += kBlock) {
    for (std::size_t group = 0; group < groups; group += kBlock) {
      for (std::size_t p = start; p < std::min(start + kBlock, last); ++p) {
        copy_pixel(p, group, std::min(group + kBlock, groups));
      }
    }
  }
}

void copy_runs(const float* from, Place source, float* to, Place target, std::size_t pixels,
               std::size_t groups, std::size_t run, Workers& workers) {
  workers.run((pixels + kRunPixels - 1) / kRunPixels, [&](std::size_t i, std::size_t) {
    const std::size_t first = i * kRunPixels;
    copy_blocks(from, source, to, target, first, std::min(first + kRunPixels, pixels), groups, run);
  });
}

}  // namespace

void split_channels(const float* input, std::size_t pixels, std::size_t channels,
                    std::size_t groups, std::size_t group_channels, float* slices,
                    Workers& workers) {
  copy_runs(input, {channels, group_channels}, slices, {group_channels, pixels * group_channels},
            pixels, groups, group_channels, workers);
}

void interleave_channels(const float* staging, std::size_t group_stride, std::size_t pixels,
                         std::size_t groups, std::size_t group_channels, float* output,
                         Workers& workers) {
  copy_runs(staging, {group_channels, group_stride}, output,
            {groups * group_channels, group_channels}, pixels, groups, group_channels, workers);
}

}  // namespace ravu::kernels
