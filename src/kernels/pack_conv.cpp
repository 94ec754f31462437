// Weights for the direct form: taps without weights are left out, the others are cut into slices,
// and each panel of output channels gets its rows in the order in which they are read.
#include <algorithm>

#include "kernels/packed_conv.h"
#include "kernels/tile.h"
#include "kernels/workers.h"

namespace ravu::kernels {
namespace {

// Whether any of the `kernels` weight rows has a weight for this tap.
bool tap_counts(const ConvSizes& s, const float* weights, std::size_t tap) {
  const std::size_t patch = patch_floats(s);
  for (std::size_t m = 0; m < s.kernels; ++m) {
    const float* row = weights + m * patch + tap * s.group_channels;
    if (std::any_of(row, row + s.group_channels, [](float w) { return w != 0.0F; })) return true;
  }
  return false;
}

// Adds some channels of a tap to the runs, joined with what they continue; a full slice ends before
// them.
void add_channels(PackedConv& packed, const PatchRun& run, std::size_t tap_floats) {
  if (packed.slices.empty() || packed.slices.back().depth + run.length > kSliceDepth) {
    packed.slices.push_back({packed.runs.size(), packed.runs.size(), 0});
  }
  const auto place = [&](const PatchRun& r) { return r.column * tap_floats + r.channel; };
  PatchSlice& slice = packed.slices.back();
  PatchRun* last = slice.end_run > slice.first_run ? &packed.runs.back() : nullptr;
  if (last != nullptr && last->row == run.row && place(*last) + last->length == place(run)) {
    last->length += run.length;
  } else {
    packed.runs.push_back(run);
  }
  slice.end_run = packed.runs.size();
  slice.depth += run.length;
  packed.depth += run.length;
}

// Adds a tap, in parts that fit a slice.
void add_tap(PackedConv& packed, std::size_t row, std::size_t column, std::size_t channels) {
  const std::size_t part = even_part(channels, kSliceDepth);
  for (std::size_t c = 0; c < channels; c += part) {
    add_channels(
        packed,
        {static_cast<std::uint32_t>(row), static_cast<std::uint32_t>(column),
         static_cast<std::uint32_t>(c), static_cast<std::uint32_t>(std::min(part, channels - c))},
        channels);
  }
}

void choose_runs(const ConvSizes& s, const float* weights, PackedConv& packed) {
  // Without channels there may be any number of taps, and no weights for them.
  const std::size_t taps = s.group_channels == 0 || s.kernels == 0 ? 0 : s.kernel_h * s.kernel_w;
  for (std::size_t tap = 0; tap < taps; ++tap) {
    if (!tap_counts(s, weights, tap)) continue;
    add_tap(packed, tap / s.kernel_w, tap % s.kernel_w, s.group_channels);
  }
  // Without any weight there is still a bias to write.
  if (packed.slices.empty()) packed.slices.push_back({0, 0, 0});
}

// Writes the rows of one panel: `width` weights for each float of the patch, zeros behind the
// `channels` that exist.
void pack_panel(const ConvSizes& s, const float* weights, const PackedConv& packed,
                std::size_t channels, std::size_t width, float* to) {
  const std::size_t patch = patch_floats(s);
  for (const PatchRun& run : packed.runs) {
    const float* from =
        weights + (run.row * s.kernel_w + run.column) * s.group_channels + run.channel;
    for (std::size_t k = 0; k < run.length; ++k, to += width) {
      for (std::size_t m = 0; m < channels; ++m) to[m] = from[m * patch + k];
      std::fill(to + channels, to + width, 0.0F);
    }
  }
}

}  // namespace

PackedConv pack_conv(const ConvSizes& sizes, const float* weights, Workers& workers) {
  const TileVectors vectors = tile_vectors();
  PackedConv packed;
  packed.lanes = vectors.lanes;
  packed.panel_width = vectors.lanes * vectors.most;
  packed.patch = patch_floats(sizes);
  packed.kernels = sizes.kernels;
  choose_runs(sizes, weights, packed);
  packed.weights = AlignedFloats(packed.depth * whole_vectors(sizes.kernels, packed.lanes));
  const std::size_t panels = (sizes.kernels + packed.panel_width - 1) / packed.panel_width;
  workers.run(panels, [&](std::size_t panel, std::size_t) {
    const std::size_t first = panel * packed.panel_width;
    const std::size_t channels = std::min(sizes.kernels - first, packed.panel_width);
    pack_panel(sizes, weights + first * packed.patch, packed, channels,
               whole_vectors(channels, packed.lanes), packed.weights.data() + first * packed.depth);
  });
  return packed;
}

}  // namespace ravu::kernels
