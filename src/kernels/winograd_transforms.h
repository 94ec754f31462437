// The two transforms that run with every pass, vectorised across channels.
#pragma once

#include <cstddef>

#include "kernels/element_steps.h"

namespace ravu::kernels {

// For tiles of side x side output pixels (2 or 4), which read side + 2 pixels each way.

// pixels: those that a tile reads, row by row, each with `channels` values.
// products + i * stride: where the transformed tile's value i of each channel goes.
void transform_tile(std::size_t side, const float* const* pixels, std::size_t channels,
                    float* products, std::size_t stride);

// products + i * stride: the sums of product i for each channel. Adds the bias (null: none),
// runs the steps and writes the output pixels that exist; null: does not exist.
void transform_sums(std::size_t side, const float* products, std::size_t stride,
                    std::size_t channels, const float* bias, const ElementSteps& steps,
                    float* const* pixels);

}  // namespace ravu::kernels
