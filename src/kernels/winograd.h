// Convolution with 3 x 3 kernels in fewer multiplications: Winograd's minimal filtering F(4x4, 3x3)
// and F(2x2, 3x3) as in Lavin and Gray, "Fast Algorithms for Convolutional Neural Networks" (2016).
// Tiles of 6 x 6 input pixels and the kernels are transformed, multiplied as 36 matrix products
// over the channels, and the sums transformed back to 4 x 4 output pixels: 36 multiplications in
// place of 144. Small maps have too few such tiles; theirs are 4 x 4, for 2 x 2 pixels: 16 in place
// of 36.
#pragma once

#include <cstddef>

#include "kernels/aligned_floats.h"
#include "kernels/element_steps.h"
#include "kernels/kernels.h"

namespace ravu::kernels {

// Output pixels on the side of a tile, which reads two pixels more.
enum class WinogradSide : std::size_t { kNone = 0, kTwo = 2, kFour = 4 };

// The transformed kernels of one group: for each product, for each panel of output channels, one
// row of weights for each input channel. The last panel is as wide as needed.
struct WinogradConv {
  WinogradSide side = WinogradSide::kNone;
  std::size_t channels = 0, kernels = 0;
  std::size_t lanes = 0, panel_width = 0;
  AlignedFloats weights;
};

// The tiles with which this form is faster than the direct one; none where it is not, or not
// possible.
WinogradSide winograd_side(const ConvSizes& sizes);

// Transforms `kernels` weight rows of patch_floats, for the tiles above. Throws std::bad_alloc.
WinogradConv pack_winograd(const ConvSizes& sizes, const float* weights, Workers& workers);

// Whether the weights were packed for these sizes, as far as a layer's can change.
bool packed_for(const WinogradConv& packed, const ConvSizes& sizes);

// Floats of scratch memory, whatever the number of threads; 8 MiB at most.
std::size_t winograd_scratch_floats(const ConvSizes& sizes);

// The sums of `convolve` with rounding errors up to 1e-3 of the output's root mean square, 1e-5 on
// average (tiles of two: as the direct form), and then the steps. The bias and the steps'
// parameters have one value for each output channel of the group; null: no bias. The result does
// not depend on the number of threads.
void convolve_winograd(const ConvSizes& sizes, const float* input, const WinogradConv& packed,
                       const float* bias, const ElementSteps& steps, float* output, float* scratch,
                       Workers& workers);

}  // namespace ravu::kernels
