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
constexpr std::size_t kBlockPixels = 192;  // output pixels of a block, about

// A rectangle of output pixels that is computed as a whole.
struct Block {
  std::size_t row, column, rows, columns;
};

// Where a block's patches begin and its results go.
struct Field {
  const float* origin;  // the patch of the block's first pixel
  std::size_t row_floats, pixel_floats;
  std::size_t row_step, column_step;  // floats from one pixel's patch to the next one's
  std::size_t columns, pixels;
  float* output;
  std::size_t out_row, out_pixel;  // floats from one row and pixel of the output to the next
};

// Output channels [first, first + channels).
struct Panel {
  std::size_t first, channels, vectors;
  const float* weights;
  const float* bias;
};

// The tile from `pixel` on. Pixels beyond the field repeat the last one and write into `spare`.
void place_tile(const Field& field, std::size_t pixel, std::size_t channel, float* spare,
                std::size_t width, Tile& tile) {
  std::size_t y = pixel / field.columns;
  std::size_t x = pixel % field.columns;
  for (std::size_t p = 0; p < kTilePixels; ++p) {
    tile.pixels[p] = field.origin + y * field.row_step + x * field.column_step;
    tile.outputs[p] = pixel + p < field.pixels
                          ? field.output + y * field.out_row + x * field.out_pixel + channel
                          : spare + p * width;
    if (pixel + p + 1 >= field.pixels) continue;
    if (++x == field.columns) {
      x = 0;
      ++y;
    }
  }
}

// Runs a tile whose outputs do not end with a whole vector on rows of its own.
void multiply_ragged_tile(MultiplyTile multiply, const TileSlice& slice, const Panel& panel,
                          const Tile& tile, float* rows, std::size_t width) {
  Tile own = tile;
  for (std::size_t p = 0; p < kTilePixels; ++p) {
    own.outputs[p] = rows + p * width;
    if (slice.continues) std::copy_n(tile.outputs[p], panel.channels, own.outputs[p]);
  }
  multiply(slice, own);
  for (std::size_t p = 0; p < kTilePixels; ++p) {
    std::copy_n(own.outputs[p], panel.channels, tile.outputs[p]);
  }
}

void multiply_panel(const PackedConv& packed, const Field& field, const Panel& panel) {
  constexpr std::size_t kWidth = kMaxTileVectors * kMaxTileLanes;
  alignas(64) float spare[kTilePixels * kWidth] = {};
  alignas(64) float rows[kTilePixels * kWidth] = {};
  alignas(64) float bias[kWidth] = {};
  if (panel.bias != nullptr) std::copy_n(panel.bias, panel.channels, bias);
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
                          .bias = last && panel.bias != nullptr ? bias : nullptr,
                          .continues = s != 0};
    for (std::size_t pixel = 0; pixel < field.pixels; pixel += kTilePixels) {
      Tile tile;
      place_tile(field, pixel, panel.first, spare, kWidth, tile);
      if (panel.channels == width) {
        multiply(slice, tile);
      } else {
        multiply_ragged_tile(multiply, slice, panel, tile, rows, kWidth);
      }
    }
    weights += part.depth * width;
  }
}

void multiply_panels(const PackedConv& packed, const Field& field, const float* bias,
                     std::size_t kernels, std::size_t first_panel, std::size_t end_panel) {
  for (std::size_t p = first_panel; p < end_panel; ++p) {
    const std::size_t first = p * packed.panel_width;
    const std::size_t channels = std::min(kernels - first, packed.panel_width);
    multiply_panel(packed, field,
                   {.first = first,
                    .channels = channels,
                    .vectors = (channels + packed.lanes - 1) / packed.lanes,
                    .weights = packed.weights.data() + first * packed.depth,
                    .bias = bias == nullptr ? nullptr : bias + first});
  }
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

// Rows and columns of the blocks that the output is cut into, about kBlockPixels each, fewer where
// their input would not fit the scratch area.
Block block_size(const ConvSizes& s) {
  Block block{0, 0, 1, std::clamp<std::size_t>(s.columns, 1, kBlockPixels)};
  block.rows =
      std::clamp<std::size_t>(kBlockPixels / block.columns, 1, std::max<std::size_t>(s.rows, 1));
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

Field place_field(const ConvSizes& s, const float* image, float* output, const Block& block,
                  float* scratch) {
  const bool in_place = reads_in_place(s);
  const std::size_t pixel_floats = in_place ? s.channels : s.group_channels;
  const std::size_t row_floats =
      pixel_floats * (in_place ? s.width : read_columns(s, block.columns));
  const float* origin = scratch;
  if (in_place) {
    origin = image + (s.shift_h + block.row * s.stride_h) * row_floats +
             (s.shift_w + block.column * s.stride_w) * pixel_floats;
  } else {
    copy_input(s, image, block, scratch);
  }
  return {.origin = origin,
          .row_floats = row_floats,
          .pixel_floats = pixel_floats,
          .row_step = s.stride_h * row_floats,
          .column_step = s.stride_w * pixel_floats,
          .columns = block.columns,
          .pixels = block.rows * block.columns,
          .output = output + (block.row * s.columns + block.column) * s.out_channels,
          .out_row = s.columns * s.out_channels,
          .out_pixel = s.out_channels};
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
  for (std::size_t tap = 0; tap < s.kernel_h * s.kernel_w; ++tap) {
    if (s.group_channels == 0 || !tap_counts(s, weights, tap)) continue;
    add_tap(packed, static_cast<std::uint32_t>(tap / s.kernel_w),
            static_cast<std::uint32_t>(tap % s.kernel_w), s.group_channels);
  }
  // Without any weight there is still a bias to write.
  if (packed.slices.empty()) packed.slices.push_back({0, 0, 0});
}

// Writes the rows of one panel: `width` weights for each float of the patch, zeros behind the
// `channels` that exist.
float* pack_panel(const ConvSizes& s, const float* weights, const PackedConv& packed,
                  std::size_t channels, std::size_t width, float* to) {
  const std::size_t patch = patch_floats(s);
  for (const PatchRun& run : packed.runs) {
    const float* from = weights + (run.row * s.kernel_w + run.column) * s.group_channels;
    for (std::size_t k = 0; k < run.length; ++k, to += width) {
      for (std::size_t m = 0; m < channels; ++m) to[m] = from[m * patch + k];
      std::fill(to + channels, to + width, 0.0F);
    }
  }
  return to;
}

// How many parts the panels are cut into when there are too few blocks for the threads.
std::size_t panel_groups(std::size_t blocks, std::size_t panels, std::size_t threads) {
  if (threads == 1) return 1;
  const std::size_t wanted = (4 * threads + blocks - 1) / blocks;
  return std::clamp<std::size_t>(wanted, 1, std::max<std::size_t>(panels, 1));
}

}  // namespace

PackedConv pack_conv(const ConvSizes& sizes, const float* weights) {
  const TileVectors vectors = tile_vectors();
  PackedConv packed;
  packed.lanes = vectors.lanes;
  packed.panel_width = vectors.lanes * vectors.most;
  packed.patch = patch_floats(sizes);
  packed.kernels = sizes.kernels;
  choose_runs(sizes, weights, packed);
  packed.weights = AlignedFloats(packed.depth * whole_vectors(sizes.kernels, packed.lanes));
  float* to = packed.weights.data();
  for (std::size_t first = 0; first < sizes.kernels; first += packed.panel_width) {
    const std::size_t channels = std::min(sizes.kernels - first, packed.panel_width);
    to = pack_panel(sizes, weights + first * patch_floats(sizes), packed, channels,
                    whole_vectors(channels, packed.lanes), to);
  }
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

void convolve_packed(const ConvSizes& s, const float* input, const PackedConv& packed,
                     const float* bias, float* output, float* scratch, Workers& workers) {
  if (s.rows == 0 || s.columns == 0) return;
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
    const Field field =
        place_field(s, input + image * s.height * s.width * s.channels,
                    output + image * s.out_image, block, scratch + worker * scratch_floats);
    multiply_panels(packed, field, bias, s.kernels, group * panels / groups,
                    (group + 1) * panels / groups);
  });
}

}  // namespace ravu::kernels
