// Convolution with 3 x 3 kernels in fewer multiplications: Winograd's minimal filtering F(4x4, 3x3)
// as in Lavin and Gray, "Fast Algorithms for Convolutional Neural Networks" (2016). Tiles of 6 x 6
// input pixels and the kernels are transformed, multiplied as 36 matrix products over the channels,
// and the sums transformed back to 4 x 4 output pixels: 36 multiplications in place of 144.
#pragma once

#include <cstddef>

#include "kernels/aligned_floats.h"
#include "kernels/kernels.h"

namespace ravu::kernels {

inline constexpr std::size_t kWinogradTile = 6;    // input pixels on a side
inline constexpr std::size_t kWinogradOutput = 4;  // output pixels on a side
inline constexpr std::size_t kWinogradProducts = kWinogradTile * kWinogradTile;

// The transformed kernels of one group: for each of the 36 products, for each panel of output
// channels, one row of weights for each input channel. The last panel is as wide as needed.
struct WinogradConv {
  std::size_t channels = 0, kernels = 0;
  std::size_t lanes = 0, panel_width = 0;
  AlignedFloats weights;
};

// Whether this form is possible and faster than the direct one. Small layers keep the direct form
// and its smaller rounding errors.
bool winograd_pays(const ConvSizes& sizes);

// Transforms `kernels` weight rows of patch_floats. Throws std::bad_alloc.
WinogradConv pack_winograd(const ConvSizes& sizes, const float* weights);

// Whether the weights were packed for these sizes, as far as a layer's can change.
bool packed_for(const WinogradConv& packed, const ConvSizes& sizes);

// Floats of scratch memory, whatever the number of threads.
std::size_t winograd_scratch_floats(const ConvSizes& sizes);

// The sums of `convolve` with rounding errors up to 1e-3 of the output's root mean square, 1e-5 on
// average. The bias has one value for each output channel of the group; null: none. The result
// does not depend on the number of threads.
void convolve_winograd(const ConvSizes& sizes, const float* input, const WinogradConv& packed,
                       const float* bias, float* output, float* scratch, Workers& workers);

}  // namespace ravu::kernels
