// Work is cut into blocks of output pixels and groups of panels. A worker copies the block's input
// with its padding into its own scratch area, unless the patches can be read where they are, and
// runs the panels over it: slice by slice, so that a slice's weights stay in the cache.
#include "kernels/packed_conv.h"

#include <algorithm>

#include "kernels/tile.h"
#include "kernels/workers.h"

namespace ravu::kernels {
namespace {

constexpr std::size_t kSliceDepth = 1024;  // floats of a patch in a slice
constexpr std::size_t kBlockPixels = 204;  // output pixels of a block at most: whole tiles
constexpr std::size_t kMostPixels = kBlockPixels;
static_assert(kBlockPixels % kTilePixels == 0);

// A rectangle of output pixels that is computed as a whole.
struct Block {
  std::size_t row, column, rows, columns;
};

// Where the patches of a block's pixels begin and their results go. The last pixel is repeated
// until the tiles are full.
struct Field {
  std::size_t row_floats, pixel_floats;  // of the data that the patches are read from
  std::size_t pixels;
  const float* patches[kMostPixels];
  float* outputs[kMostPixels];
};

// Output channels [first, first + channels).
struct Panel {
  std::size_t first, channels, vectors;
  const float* weights;
  const float* bias;
};

constexpr std::size_t kWidth = kMaxTileVectors * kMaxTileLanes;  // of the widest panel

// What follows the sums of one panel, in arrays that may be read in whole vectors.
class PanelEnd {
 public:
  PanelEnd(const Panel& panel, const ElementSteps& steps)
      : bias_(widened(panel.bias, panel, bias_floats_)), steps_(steps.from_channel(panel.first)) {
    float(*to)[2][kWidth] = parameters_;
    for (ElementStep& step : steps_) {
      step.first = widened(step.first, panel, (*to)[0]);
      step.second = widened(step.second, panel, (*to)[1]);
      ++to;
    }
  }
  PanelEnd(const PanelEnd&) = delete;
  PanelEnd& operator=(const PanelEnd&) = delete;

  const float* bias() const { return bias_; }
  const ElementSteps* steps() const { return steps_.empty() ? nullptr : &steps_; }

 private:
  static const float* widened(const float* values, const Panel& panel, float* to) {
    if (values == nullptr) return nullptr;
    std::fill(std::copy_n(values, panel.channels, to), to + kWidth, 0.0F);
    return to;
  }

  float bias_floats_[kWidth];
  float parameters_[ElementSteps::kMost][2][kWidth];
  const float* bias_;
  ElementSteps steps_;
};

// Runs a tile whose outputs do not end with a whole vector on rows of its own.
void multiply_ragged_tile(MultiplyTile multiply, const TileSlice& slice, const Panel& panel,
                          const Tile& tile, float* rows) {
  float* own[kTilePixels];
  for (std::size_t p = 0; p < kTilePixels; ++p) {
    own[p] = rows + p * kWidth;
    if (slice.continues) std::copy_n(tile.outputs[p] + tile.channel, panel.channels, own[p]);
  }
  multiply(slice, {tile.pixels, own, 0});
  for (std::size_t p = 0; p < kTilePixels; ++p) {
    std::copy_n(own[p], panel.channels, tile.outputs[p] + tile.channel);
  }
}

void multiply_panel(const PackedConv& packed, const Field& field, const Panel& panel,
                    const ElementSteps& steps) {
  alignas(64) float rows[kTilePixels * kWidth] = {};
  const PanelEnd end(panel, steps);
  const MultiplyTile multiply = tile_loop(panel.vectors);
  const std::size_t width = panel.vectors * packed.lanes;
  const float* weights = panel.weights;
  for (std::size_t s = 0; s < packed.slices.size(); ++s) {
    const PatchSlice& part = packed.slices[s];
    const bool last = s + 1 == packed.slices.size();
    const TileSlice slice{.first = packed.runs.data() + part.first_run,
                          .end = packed.runs.data() + part.end_run,
                          .row_floats = field.row_floats,
                          .pixel_floats = field.pixel_floats,
                          .weights = weights,
                          .bias = last ? end.bias() : nullptr,
                          .steps = last ? end.steps() : nullptr,
                          .continues = s != 0};
    for (std::size_t pixel = 0; pixel < field.pixels; pixel += kTilePixels) {
      const Tile tile{field.patches + pixel, field.outputs + pixel, panel.first};
      if (panel.channels == width) {
        multiply(slice, tile);
      } else {
        multiply_ragged_tile(multiply, slice, panel, tile, rows);
      }
    }
    weights += part.depth * width;
  }
}

void multiply_panels(const PackedConv& packed, const Field& field, const float* bias,
                     const ElementSteps& steps, std::size_t kernels, std::size_t first_panel,
                     std::size_t end_panel) {
  for (std::size_t p = first_panel; p < end_panel; ++p) {
    const std::size_t first = p * packed.panel_width;
    const std::size_t channels = std::min(kernels - first, packed.panel_width);
    multiply_panel(packed, field,
                   {.first = first,
                    .channels = channels,
                    .vectors = (channels + packed.lanes - 1) / packed.lanes,
                    .weights = packed.weights.data() + first * packed.depth,
                    .bias = bias == nullptr ? nullptr : bias + first},
                   steps);
  }
}

// Where neither padding nor stride keeps rows and images apart, all pixels are one row: its blocks
// have any number of pixels.
ConvSizes joined(const ConvSizes& sizes) {
  ConvSizes s = sizes;
  const bool one_tap = s.kernel_h == 1 && s.kernel_w == 1;
  const bool dense = s.stride_h == 1 && s.stride_w == 1 && s.pad_h == 0 && s.pad_w == 0 &&
                     s.rows == s.height && s.columns == s.width;
  if (!one_tap || !dense) return s;
  s.width *= s.height;
  s.columns = s.width;
  s.height = s.rows = 1;
  if (s.out_image != s.columns * s.out_channels) return s;
  s.width *= s.batch;
  s.columns = s.width;
  s.out_image *= s.batch;
  s.batch = 1;
  return s;
}

// Whether the patches can be read in the input itself.
bool reads_in_place(const ConvSizes& s) {
  const bool padded = s.pad_h != 0 || s.pad_w != 0;
  const bool one_tap = s.kernel_h == 1 && s.kernel_w == 1;
  return !padded && (s.group_channels == s.channels || one_tap);
}

// Input rows and columns that a block reads.
std::size_t read_rows(const ConvSizes& s, std::size_t rows) {
  return (rows - 1) * s.stride_h + s.kernel_h;
}
std::size_t read_columns(const ConvSizes& s, std::size_t columns) {
  return (columns - 1) * s.stride_w + s.kernel_w;
}

// Floats that a copy of a block's input takes, or more than kMaxPackedScratch.
std::size_t copy_floats(const ConvSizes& s, std::size_t rows, std::size_t columns) {
  std::size_t floats = s.group_channels;
  for (const std::size_t factor : {read_rows(s, rows), read_columns(s, columns)}) {
    if (floats > kMaxPackedScratch || factor > kMaxPackedScratch) return kMaxPackedScratch + 1;
    floats *= factor;
  }
  return floats;
}

// The size of the parts when `whole` is cut into as few as possible, all about equal, of `most` at
// most.
std::size_t even_part(std::size_t whole, std::size_t most) {
  const std::size_t parts = std::max<std::size_t>((whole + most - 1) / most, 1);
  return std::max<std::size_t>((whole + parts - 1) / parts, 1);
}

// Rows and columns of the blocks that the output is cut into: kBlockPixels at most, fewer where
// their input would not fit the scratch area. A row that is cut is cut into whole tiles.
Block block_size(const ConvSizes& s) {
  std::size_t columns = even_part(s.columns, kBlockPixels);
  if (columns < s.columns) columns = (columns + kTilePixels - 1) / kTilePixels * kTilePixels;
  Block block{0, 0, even_part(s.rows, kBlockPixels / columns), columns};
  if (reads_in_place(s)) return block;
  while (copy_floats(s, block.rows, block.columns) > kMaxPackedScratch) {
    std::size_t& longer = block.rows > 1 ? block.rows : block.columns;
    if (longer == 1) break;
    longer /= 2;
  }
  return block;
}

// Copies what a block reads, padding included, group channels only. Positions are those of the
// padded image.
void copy_input(const ConvSizes& s, const float* image, const Block& block, float* to) {
  const std::size_t columns = read_columns(s, block.columns);
  const std::size_t left = s.shift_w + block.column * s.stride_w;
  // Columns [first, end) of the copy lie inside the image.
  const std::size_t first = std::min(s.pad_w > left ? s.pad_w - left : 0, columns);
  const std::size_t border = s.pad_w + s.width;
  const std::size_t end = std::clamp(border > left ? border - left : 0, first, columns);
  for (std::size_t y = 0; y < read_rows(s, block.rows); ++y) {
    float* row = to + y * columns * s.group_channels;
    float* row_end = row + columns * s.group_channels;
    const std::size_t padded_y = s.shift_h + block.row * s.stride_h + y;
    if (padded_y < s.pad_h || padded_y >= s.pad_h + s.height || first == end) {
      std::fill(row, row_end, 0.0F);
      continue;
    }
    const float* from =
        image + ((padded_y - s.pad_h) * s.width + left + first - s.pad_w) * s.channels;
    row = std::fill_n(row, first * s.group_channels, 0.0F);
    if (s.group_channels == s.channels) {
      row = std::copy_n(from, (end - first) * s.channels, row);
    } else {
      for (std::size_t x = first; x < end; ++x, from += s.channels) {
        row = std::copy_n(from, s.group_channels, row);
      }
    }
    std::fill(row, row_end, 0.0F);
  }
}

void place_field(const ConvSizes& s, const float* image, float* output, const Block& block,
                 float* scratch, Field& field) {
  const bool in_place = reads_in_place(s);
  field.pixel_floats = in_place ? s.channels : s.group_channels;
  field.row_floats = field.pixel_floats * (in_place ? s.width : read_columns(s, block.columns));
  const float* origin = scratch;
  if (in_place) {
    origin = image + (s.shift_h + block.row * s.stride_h) * field.row_floats +
             (s.shift_w + block.column * s.stride_w) * field.pixel_floats;
  } else {
    copy_input(s, image, block, scratch);
  }
  field.pixels = 0;
  for (std::size_t y = 0; y < block.rows; ++y) {
    const float* patch = origin + y * s.stride_h * field.row_floats;
    float* to = output + ((block.row + y) * s.columns + block.column) * s.out_channels;
    for (std::size_t x = 0; x < block.columns; ++x, ++field.pixels) {
      field.patches[field.pixels] = patch + x * s.stride_w * field.pixel_floats;
      field.outputs[field.pixels] = to + x * s.out_channels;
    }
  }
  for (; field.pixels % kTilePixels != 0; ++field.pixels) {
    field.patches[field.pixels] = field.patches[field.pixels - 1];
    field.outputs[field.pixels] = field.outputs[field.pixels - 1];
  }
}

// Whether any of the `kernels` weight rows has a weight for this tap.
bool tap_counts(const ConvSizes& s, const float* weights, std::size_t tap) {
  const std::size_t patch = patch_floats(s);
  for (std::size_t m = 0; m < s.kernels; ++m) {
    const float* row = weights + m * patch + tap * s.group_channels;
    if (std::any_of(row, row + s.group_channels, [](float w) { return w != 0.0F; })) return true;
  }
  return false;
}

// Adds a tap's floats to the runs, joined with its left neighbour; a full slice ends before it.
void add_tap(PackedConv& packed, std::uint32_t row, std::uint32_t column, std::size_t length) {
  if (packed.slices.empty() || packed.slices.back().depth + length > kSliceDepth) {
    packed.slices.push_back({packed.runs.size(), packed.runs.size(), 0});
  }
  PatchSlice& slice = packed.slices.back();
  PatchRun* last = slice.end_run > slice.first_run ? &packed.runs.back() : nullptr;
  const bool joins =
      last != nullptr && last->row == row && last->column + last->length / length == column;
  if (joins) {
    last->length += static_cast<std::uint32_t>(length);
  } else {
    packed.runs.push_back({row, column, static_cast<std::uint32_t>(length)});
  }
  slice.end_run = packed.runs.size();
  slice.depth += length;
  packed.depth += length;
}

void choose_runs(const ConvSizes& s, const float* weights, PackedConv& packed) {
  // Without channels there may be any number of taps, and no weights for them.
  const std::size_t taps = s.group_channels == 0 || s.kernels == 0 ? 0 : s.kernel_h * s.kernel_w;
  for (std::size_t tap = 0; tap < taps; ++tap) {
    if (!tap_counts(s, weights, tap)) continue;
    add_tap(packed, static_cast<std::uint32_t>(tap / s.kernel_w),
            static_cast<std::uint32_t>(tap % s.kernel_w), s.group_channels);
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
    const float* from = weights + (run.row * s.kernel_w + run.column) * s.group_channels;
    for (std::size_t k = 0; k < run.length; ++k, to += width) {
      for (std::size_t m = 0; m < channels; ++m) to[m] = from[m * patch + k];
      std::fill(to + channels, to + width, 0.0F);
    }
  }
}

// So many that threads which draw them finish at about the same time.
constexpr std::size_t kTasksPerThread = 12;

// How many parts the panels are cut into when there are too few blocks for the threads.
std::size_t panel_groups(std::size_t blocks, std::size_t panels, std::size_t threads) {
  if (threads == 1) return 1;
  const std::size_t wanted = (kTasksPerThread * threads + blocks - 1) / blocks;
  return std::clamp<std::size_t>(wanted, 1, std::max<std::size_t>(panels, 1));
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

std::size_t packed_scratch_floats(const ConvSizes& s) {
  if (reads_in_place(s)) return 0;
  const Block block = block_size(s);
  return copy_floats(s, block.rows, block.columns);
}

bool packed_for(const PackedConv& packed, const ConvSizes& sizes) {
  return packed.weights && packed.patch == patch_floats(sizes) && packed.kernels == sizes.kernels &&
         packed_scratch_floats(sizes) <= kMaxPackedScratch;
}

void convolve_packed(const ConvSizes& sizes, const float* input, const PackedConv& packed,
                     const float* bias, const ElementSteps& steps, float* output, float* scratch,
                     Workers& workers) {
  const ConvSizes s = joined(sizes);
  if (s.batch == 0 || s.rows == 0 || s.columns == 0) return;
  const Block size = block_size(s);
  const std::size_t across = (s.columns + size.columns - 1) / size.columns;
  const std::size_t blocks = (s.rows + size.rows - 1) / size.rows * across;
  const std::size_t panels = (s.kernels + packed.panel_width - 1) / packed.panel_width;
  const std::size_t groups = panel_groups(s.batch * blocks, panels, workers.threads());
  const std::size_t scratch_floats = packed_scratch_floats(s);
  workers.run(s.batch * blocks * groups, [&](std::size_t index, std::size_t worker) {
    const std::size_t group = index % groups;
    const std::size_t place = index / groups % blocks;
    const std::size_t image = index / groups / blocks;
    Block block{place / across * size.rows, place % across * size.columns, 0, 0};
    block.rows = std::min(size.rows, s.rows - block.row);
    block.columns = std::min(size.columns, s.columns - block.column);
    Field field;
    place_field(s, input + image * s.height * s.width * s.channels, output + image * s.out_image,
                block, scratch + worker * scratch_floats, field);
    multiply_panels(packed, field, bias, steps, s.kernels, group * panels / groups,
                    (group + 1) * panels / groups);
  });
}

}  // namespace ravu::kernels
