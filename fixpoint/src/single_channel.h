// Convolutions from one channel to one, of which a convolution with as many groups as channels
// consists. oneDNN's primitives take ten times as long for them as the sums do.
#pragma once

#include <cstddef>
#include <cstdint>

namespace ravu::fixpoint {

// `stride_w` is the distance of neighbouring windows; `width` the bytes of a row of the picture.
struct SingleChannel {
  std::size_t kernel_h, kernel_w;
  std::size_t stride_h, stride_w;
  std::size_t width;
  std::size_t columns;  // windows side by side
};

// The sums of the rows [first, last) of windows, as bits of 32-bit integers; `sums` are those of
// all rows. Weights are at most 64 in magnitude. May read one byte behind the picture.
void single_channel_rows(const SingleChannel& sizes, const std::uint8_t* bytes,
                         const std::int16_t* weights, std::size_t first, std::size_t last,
                         float* sums);

}  // namespace ravu::fixpoint
