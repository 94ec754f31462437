// The two transforms that run with every pass, vectorised across channels.
#pragma once

#include <cstddef>

namespace ravu::kernels {

// pixels: the 36 pixels of a tile, row by row, each with `channels` values.
// products + i * stride: where the transformed tile's value i of each channel goes.
void transform_tile(const float* const* pixels, std::size_t channels, float* products,
                    std::size_t stride);

// products + i * stride: the sums of product i for each channel. Adds the bias (null: none) and
// writes the 16 output pixels that exist; null: does not exist.
void transform_sums(const float* products, std::size_t stride, std::size_t channels,
                    const float* bias, float* const* pixels);

}  // namespace ravu::kernels
