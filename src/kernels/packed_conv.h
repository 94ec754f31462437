// Convolution whose weights were packed once, in the order in which the kernel reads them. The
// kernel holds a tile of some pixels times some output channels in registers and walks the patches
// in place: a patch row is consecutive in interleaved data, so there is nothing to gather.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "kernels/aligned_floats.h"
#include "kernels/element_steps.h"
#include "kernels/kernels.h"

namespace ravu::kernels {

// Consecutive floats of a patch: of one kernel row, from this channel of the tap in this column on.
struct PatchRun {
  std::uint32_t row, column, channel, length;
};

// A part of the patch whose weights stay in the cache while they pass over many pixels.
struct PatchSlice {
  std::size_t first_run, end_run;
  std::size_t depth;  // floats of its runs
};

// The weights of one group, by panels of output channels, within a panel by slices, within a slice
// one row of `panel_width` weights for each float of the patch. The last panel is as wide as the
// remaining channels need, in whole vectors; the channels that are missing have zero weights.
struct PackedConv {
  std::vector<PatchRun> runs;
  std::vector<PatchSlice> slices;
  std::size_t patch = 0;        // floats of a whole patch
  std::size_t kernels = 0;      // output channels
  std::size_t depth = 0;        // floats of a patch that have weights
  std::size_t lanes = 0;        // of a vector
  std::size_t panel_width = 0;  // of all but the last panel
  AlignedFloats weights;
};

// Packs `kernels` weight rows of patch_floats. Taps whose weights are zero for every output channel
// are left out: they cost nothing. Throws std::bad_alloc.
PackedConv pack_conv(const ConvSizes& sizes, const float* weights, Workers& workers);

// Whether the sizes are small enough for this form.
bool can_pack(const ConvSizes& sizes);

// Floats of scratch memory: what each thread copies of the input for a block, kMaxBlockCopy at
// most, or one padded image where that is too little for a block of useful size.
inline constexpr std::size_t kMaxBlockCopy = std::size_t{1} << 17;
inline constexpr std::size_t kMaxPaddedImage = std::size_t{1} << 22;
std::size_t packed_scratch_floats(const ConvSizes& sizes, std::size_t threads);

// Whether the weights were packed for these sizes, as far as a layer's can change.
bool packed_for(const PackedConv& packed, const ConvSizes& sizes);

// The sums of `convolve`, in another order that depends on the sizes alone, and then the steps. The
// bias and the steps' parameters have one value for each output channel of the group; null: no
// bias. `scratch` has packed_scratch_floats. The result does not depend on the number of threads.
void convolve_packed(const ConvSizes& sizes, const float* input, const PackedConv& packed,
                     const float* bias, const ElementSteps& steps, float* output, float* scratch,
                     Workers& workers);

}  // namespace ravu::kernels
