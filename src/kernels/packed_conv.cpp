// Work is cut into blocks of output pixels and groups of panels. A worker copies the block's input
// with its padding into its own scratch area, unless the patches can be read where they are, and
// runs the panels over it: slice by slice, so that a slice's weights stay in the cache.
#include "kernels/packed_conv.h"

#include <algorithm>

#include "kernels/tile.h"
#include "kernels/workers.h"

namespace ravu::kernels {
namespace {

constexpr std::size_t kBlockPixels = 204;  // output pixels of a block at most: whole tiles
constexpr std::size_t kMostPixels = kBlockPixels;
constexpr std::size_t kLeastBlockPixels = 96;  // of a block that has scratch memory of its own
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
  bool brings_next;  // whether the weights pass over few blocks
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
  const float* end_of_all = packed.weights.data() + packed.weights.size();
  for (std::size_t s = 0; s < packed.slices.size(); ++s) {
    const PatchSlice& part = packed.slices[s];
    const bool last = s + 1 == packed.slices.size();
    TileSlice slice{.first = packed.runs.data() + part.first_run,
                    .end = packed.runs.data() + part.end_run,
                    .row_floats = field.row_floats,
                    .pixel_floats = field.pixel_floats,
                    .weights = weights,
                    .bias = last ? end.bias() : nullptr,
                    .steps = last ? end.steps() : nullptr,
                    .continues = s != 0};
    if (field.brings_next) bring_next(slice, part.depth, width, field.pixels, end_of_all);
    for (std::size_t pixel = 0; pixel < field.pixels; pixel += kTilePixels) {
      const Tile tile{field.patches + pixel, field.outputs + pixel, panel.first};
      if (panel.channels == width) {
        multiply(slice, tile);
      } else {
        multiply_ragged_tile(multiply, slice, panel, tile, rows);
      }
      slice.next += part.depth * slice.next_step;
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

// Floats that a copy of a block's input takes, or more than kMaxBlockCopy.
std::size_t copy_floats(const ConvSizes& s, std::size_t rows, std::size_t columns) {
  std::size_t floats = s.group_channels;
  for (const std::size_t factor : {read_rows(s, rows), read_columns(s, columns)}) {
    if (floats > kMaxBlockCopy || factor > kMaxBlockCopy) return kMaxBlockCopy + 1;
    floats *= factor;
  }
  return floats;
}

// Rows and columns of the blocks that the output is cut into: kBlockPixels at most, fewer where
// their input would not fit the scratch area. A row that is cut is cut into whole tiles.
Block block_size(const ConvSizes& s) {
  std::size_t columns = even_part(s.columns, kBlockPixels);
  if (columns < s.columns) columns = (columns + kTilePixels - 1) / kTilePixels * kTilePixels;
  Block block{0, 0, even_part(s.rows, kBlockPixels / columns), columns};
  if (reads_in_place(s)) return block;
  while (copy_floats(s, block.rows, block.columns) > kMaxBlockCopy) {
    std::size_t& longer = block.rows > 1 ? block.rows : block.columns;
    if (longer == 1) break;
    longer /= 2;
  }
  return block;
}

// Copies `columns` pixels of one row from column `left` on, padding included, group channels only.
// Positions are those of the padded image.
void copy_row(const ConvSizes& s, const float* image, std::size_t row, std::size_t left,
              std::size_t columns, float* to) {
  float* end_of_row = to + columns * s.group_channels;
  // Columns [first, end) of the copy lie inside the image.
  const std::size_t first = std::min(s.pad_w > left ? s.pad_w - left : 0, columns);
  const std::size_t border = s.pad_w + s.width;
  const std::size_t end = std::clamp(border > left ? border - left : 0, first, columns);
  if (row < s.pad_h || row >= s.pad_h + s.height || first == end) {
    std::fill(to, end_of_row, 0.0F);
    return;
  }
  const float* from = image + ((row - s.pad_h) * s.width + left + first - s.pad_w) * s.channels;
  to = std::fill_n(to, first * s.group_channels, 0.0F);
  if (s.group_channels == s.channels) {
    to = std::copy_n(from, (end - first) * s.channels, to);
  } else {
    for (std::size_t x = first; x < end; ++x, from += s.channels) {
      to = std::copy_n(from, s.group_channels, to);
    }
  }
  std::fill(to, end_of_row, 0.0F);
}

// Copies what a block reads.
void copy_input(const ConvSizes& s, const float* image, const Block& block, float* to) {
  const std::size_t columns = read_columns(s, block.columns);
  for (std::size_t y = 0; y < read_rows(s, block.rows); ++y) {
    copy_row(s, image, s.shift_h + block.row * s.stride_h + y,
             s.shift_w + block.column * s.stride_w, columns, to + y * columns * s.group_channels);
  }
}

// The padded image of one group, whose patches can be read in place.
ConvSizes padded_image(const ConvSizes& sizes) {
  ConvSizes s = sizes;
  s.batch = 1;
  s.height += 2 * s.pad_h;
  s.width += 2 * s.pad_w;
  s.pad_h = s.pad_w = 0;
  s.channels = s.group_channels;
  return s;
}

// Floats of the padded image, or more than kMaxPaddedImage.
std::size_t padded_floats(const ConvSizes& s) {
  std::size_t floats = s.group_channels;
  for (const std::size_t factor : {s.height + 2 * s.pad_h, s.width + 2 * s.pad_w}) {
    if (floats > kMaxPaddedImage || factor > kMaxPaddedImage) return kMaxPaddedImage + 1;
    floats *= factor;
  }
  return floats;
}

// Whether blocks would be so small that the weights, which pass once over each of them, take more
// than the sums do.
bool pads_whole_image(const ConvSizes& s) {
  const Block block = block_size(s);
  const std::size_t wanted = std::min(s.rows * s.columns, kLeastBlockPixels);
  return block.rows * block.columns < wanted && padded_floats(s) <= kMaxPaddedImage;
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

// How many parts the panels are cut into when there are too few blocks for threads which draw them
// to finish at about the same time. Each part of a block copies its input anew.
std::size_t panel_groups(std::size_t blocks, std::size_t panels, std::size_t threads, bool copies) {
  if (threads == 1) return 1;
  const std::size_t tasks = (copies ? 4 : 12) * threads;
  return std::clamp<std::size_t>((tasks + blocks - 1) / blocks, 1,
                                 std::max<std::size_t>(panels, 1));
}

// The work is drawn block by block and, where blocks are few, panel by panel.
void convolve_blocks(const ConvSizes& s, const float* input, const PackedConv& packed,
                     const float* bias, const ElementSteps& steps, float* output, float* scratch,
                     Workers& workers) {
  const Block size = block_size(s);
  const std::size_t across = (s.columns + size.columns - 1) / size.columns;
  const std::size_t blocks = (s.rows + size.rows - 1) / size.rows * across;
  const std::size_t panels = (s.kernels + packed.panel_width - 1) / packed.panel_width;
  const bool copies = !reads_in_place(s);
  const std::size_t groups = panel_groups(s.batch * blocks, panels, workers.threads(), copies);
  const std::size_t own_scratch = copies ? copy_floats(s, size.rows, size.columns) : 0;
  workers.run(s.batch * blocks * groups, [&](std::size_t index, std::size_t worker) {
    const std::size_t group = index % groups;
    const std::size_t place = index / groups % blocks;
    const std::size_t image = index / groups / blocks;
    Block block{place / across * size.rows, place % across * size.columns, 0, 0};
    block.rows = std::min(size.rows, s.rows - block.row);
    block.columns = std::min(size.columns, s.columns - block.column);
    Field field;
    field.brings_next = s.batch * blocks <= kFewBlocks;
    place_field(s, input + image * s.height * s.width * s.channels, output + image * s.out_image,
                block, scratch + worker * own_scratch, field);
    multiply_panels(packed, field, bias, steps, s.kernels, group * panels / groups,
                    (group + 1) * panels / groups);
  });
}

}  // namespace

bool can_pack(const ConvSizes& s) {
  if (reads_in_place(s) || pads_whole_image(s)) return true;
  const Block block = block_size(s);
  return copy_floats(s, block.rows, block.columns) <= kMaxBlockCopy;
}

std::size_t packed_scratch_floats(const ConvSizes& s, std::size_t threads) {
  if (reads_in_place(s)) return 0;
  if (pads_whole_image(s)) return padded_floats(s);
  const Block block = block_size(s);
  return copy_floats(s, block.rows, block.columns) * threads;
}

bool packed_for(const PackedConv& packed, const ConvSizes& sizes) {
  return packed.weights && packed.patch == patch_floats(sizes) && packed.kernels == sizes.kernels &&
         can_pack(sizes);
}

void convolve_packed(const ConvSizes& sizes, const float* input, const PackedConv& packed,
                     const float* bias, const ElementSteps& steps, float* output, float* scratch,
                     Workers& workers) {
  if (sizes.batch == 0 || sizes.rows == 0 || sizes.columns == 0) return;
  if (reads_in_place(sizes) || !pads_whole_image(sizes)) {
    convolve_blocks(joined(sizes), input, packed, bias, steps, output, scratch, workers);
    return;
  }
  const ConvSizes padded = padded_image(sizes);
  for (std::size_t n = 0; n < sizes.batch; ++n) {
    const float* image = input + n * sizes.height * sizes.width * sizes.channels;
    workers.run(padded.height, [&](std::size_t row, std::size_t) {
      copy_row(sizes, image, row, 0, padded.width, scratch + row * padded.width * padded.channels);
    });
    convolve_blocks(padded, scratch, packed, bias, steps, output + n * sizes.out_image, nullptr,
                    workers);
  }
}

}  // namespace ravu::kernels
