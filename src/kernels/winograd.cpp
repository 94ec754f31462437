// All threads work on one block of tiles at a time, in three steps: transform its tiles, multiply,
// transform the sums. The block is as large as the scratch area allows, since the transformed
// weights, the largest thing here, are read once for each block.
#include "kernels/winograd.h"

#include <algorithm>
#include <array>

#include "kernels/tile.h"
#include "kernels/winograd_transforms.h"
#include "kernels/workers.h"

namespace ravu::kernels {
namespace {

constexpr std::size_t kScratchFloats = std::size_t{1} << 21;  // 8 MiB of tiles and sums
constexpr std::size_t kMostTiles = 240;
constexpr std::size_t kLeastChannels = 16;  // of the input and of the output
constexpr std::size_t kMostChannels = 1024;
constexpr std::size_t kLeastPixels = 144;      // of the output
constexpr std::size_t kLeastSmallPixels = 36;  // with tiles of two
constexpr std::size_t kLeastSmallChannels = 32;
constexpr std::size_t kTilesInTask = 8;  // of the transforms
constexpr std::size_t kMaxSide = 4;
constexpr std::size_t kMaxProducts = (kMaxSide + 2) * (kMaxSide + 2);

std::size_t side_of(const WinogradConv& packed) {
  return static_cast<std::size_t>(packed.side);
}

std::size_t products_of(std::size_t side) {
  return (side + 2) * (side + 2);
}

// Tiles of one image, row by row.
struct TileGrid {
  std::size_t rows, columns;
};

TileGrid grid_of(const ConvSizes& s, std::size_t side) {
  return {(s.rows + side - 1) / side, (s.columns + side - 1) / side};
}

// Tiles that are treated together: a block of them, whole or cut, and one pixel of zeros fit the
// scratch area.
std::size_t block_tiles(const ConvSizes& s, std::size_t side, std::size_t width) {
  const TileGrid grid = grid_of(s, side);
  const std::size_t fitting =
      (kScratchFloats - s.group_channels) / (products_of(side) * (s.group_channels + width));
  const std::size_t most = std::clamp<std::size_t>(fitting, 1, kMostTiles);
  return std::min(most, s.batch * grid.rows * grid.columns);
}

using KernelFactors = std::array<double, 3>;
constexpr KernelFactors kFactorsOfTwo[] = {
    {1, 0, 0}, {1.0 / 2, 1.0 / 2, 1.0 / 2}, {1.0 / 2, -1.0 / 2, 1.0 / 2}, {0, 0, 1}};
constexpr KernelFactors kFactorsOfFour[] = {{1.0 / 4, 0, 0},
                                            {-1.0 / 6, -1.0 / 6, -1.0 / 6},
                                            {-1.0 / 6, 1.0 / 6, -1.0 / 6},
                                            {1.0 / 24, 1.0 / 12, 1.0 / 6},
                                            {1.0 / 24, -1.0 / 12, 1.0 / 6},
                                            {0, 0, 1}};

// Channels that are transformed together.
constexpr std::size_t kRunChannels = 8;

// The 3 x 3 weights of one kernel for a run of channels become factors, rows first. In double
// precision, since it is done once.
struct KernelRun {
  double weights[9][kRunChannels];
  double rows[kMaxSide + 2][3][kRunChannels];

  // Taps are `stride` floats apart; channels that do not exist count as zeros.
  void load(const float* from, std::size_t stride, std::size_t channels) {
    for (std::size_t tap = 0; tap < 9; ++tap) {
      for (std::size_t c = 0; c < kRunChannels; ++c) {
        weights[tap][c] = c < channels ? from[tap * stride + c] : 0.0;
      }
    }
  }

  void transform_rows(const KernelFactors* factors, std::size_t tile) {
    for (std::size_t i = 0; i < tile; ++i) {
      for (std::size_t x = 0; x < 3; ++x) {
        for (std::size_t c = 0; c < kRunChannels; ++c) {
          rows[i][x][c] = factors[i][0] * weights[x][c] + factors[i][1] * weights[3 + x][c] +
                          factors[i][2] * weights[6 + x][c];
        }
      }
    }
  }

  // Factor (i, j) of each channel.
  std::array<float, kRunChannels> factor(const KernelFactors& f, std::size_t i) const {
    std::array<float, kRunChannels> result;
    for (std::size_t c = 0; c < kRunChannels; ++c) {
      result[c] =
          static_cast<float>(f[0] * rows[i][0][c] + f[1] * rows[i][1][c] + f[2] * rows[i][2][c]);
    }
    return result;
  }
};

// The factors of output channels [first, first + width) of which `kernels` exist; `to` is where the
// panel begins in the first product, and the products lie `product` floats apart.
void pack_panel(const ConvSizes& s, std::size_t side, const float* weights, std::size_t kernels,
                std::size_t width, std::size_t product, float* to) {
  const KernelFactors* factors = side == 2 ? kFactorsOfTwo : kFactorsOfFour;
  const std::size_t tile = side + 2;
  for (std::size_t c = 0; c < s.group_channels; c += kRunChannels) {
    const std::size_t run = std::min(kRunChannels, s.group_channels - c);
    for (std::size_t m = 0; m < kernels; ++m) {
      KernelRun kernel;
      kernel.load(weights + m * patch_floats(s) + c, s.group_channels, run);
      kernel.transform_rows(factors, tile);
      for (std::size_t i = 0; i < tile * tile; ++i) {
        const auto values = kernel.factor(factors[i % tile], i / tile);
        float* place = to + i * product + c * width + m;
        for (std::size_t k = 0; k < run; ++k) place[k * width] = values[k];
      }
    }
  }
}

// The tiles [first, first + count) of the batch, their transformed values and sums.
struct TileBlock {
  std::size_t side;
  std::size_t first, count;
  float* tiles;      // [product][tile][channel]
  float* sums;       // [product][tile][output channel], whole vectors
  bool brings_next;  // whether the weights pass over few blocks
};

void transform_tiles(const ConvSizes& s, const float* input, const TileBlock& block,
                     const float* zeros, std::size_t begin, std::size_t end) {
  const std::size_t side = block.side;
  const TileGrid grid = grid_of(s, side);
  for (std::size_t t = begin; t < end; ++t) {
    const std::size_t place = (block.first + t) % (grid.rows * grid.columns);
    const std::size_t image = (block.first + t) / (grid.rows * grid.columns);
    const std::size_t top = place / grid.columns * side;
    const std::size_t left = place % grid.columns * side;
    const float* pixels[kMaxProducts];
    for (std::size_t i = 0; i < products_of(side); ++i) {
      const std::size_t y = top + i / (side + 2);
      const std::size_t x = left + i % (side + 2);
      const bool inside =
          y >= s.pad_h && y < s.pad_h + s.height && x >= s.pad_w && x < s.pad_w + s.width;
      pixels[i] =
          inside ? input + ((image * s.height + y - s.pad_h) * s.width + x - s.pad_w) * s.channels
                 : zeros;
    }
    transform_tile(side, pixels, s.group_channels, block.tiles + t * s.group_channels,
                   block.count * s.group_channels);
  }
}

// One of the products, for all channels of the output.
void multiply_product(const WinogradConv& packed, const TileBlock& block, std::size_t product) {
  const std::size_t out_width = whole_vectors(packed.kernels, packed.lanes);
  const float* tiles = block.tiles + product * block.count * packed.channels;
  float* sums = block.sums + product * block.count * out_width;
  const float* weights = packed.weights.data() + product * packed.channels * out_width;
  const float* patches[kMostTiles];
  float* outputs[kMostTiles];
  const std::size_t tiles_computed = (block.count + kTilePixels - 1) / kTilePixels * kTilePixels;
  for (std::size_t t = 0; t < tiles_computed; ++t) {
    const std::size_t existing = std::min(t, block.count - 1);
    patches[t] = tiles + existing * packed.channels;
    outputs[t] = sums + existing * out_width;
  }
  const std::size_t depth = even_part(packed.channels, kSliceDepth);
  const float* end_of_all = packed.weights.data() + packed.weights.size();
  for (std::size_t first = 0; first < out_width; first += packed.panel_width) {
    const std::size_t width = std::min(packed.panel_width, out_width - first);
    const MultiplyTile multiply = tile_loop(width / packed.lanes);
    for (std::size_t c = 0; c < packed.channels; c += depth) {
      const std::size_t length = std::min(depth, packed.channels - c);
      const PatchRun run{0, 0, static_cast<std::uint32_t>(c), static_cast<std::uint32_t>(length)};
      TileSlice slice{.first = &run,
                      .end = &run + 1,
                      .row_floats = 0,
                      .pixel_floats = 0,
                      .weights = weights + first * packed.channels + c * width,
                      .bias = nullptr,
                      .steps = nullptr,
                      .continues = c != 0};
      if (block.brings_next) bring_next(slice, length, width, tiles_computed, end_of_all);
      for (std::size_t t = 0; t < tiles_computed; t += kTilePixels) {
        multiply(slice, {patches + t, outputs + t, first});
        slice.next += length * slice.next_step;
      }
    }
  }
}

void write_outputs(const ConvSizes& s, const TileBlock& block, std::size_t out_width,
                   const float* bias, const ElementSteps& steps, float* output, std::size_t begin,
                   std::size_t end) {
  const std::size_t side = block.side;
  const TileGrid grid = grid_of(s, side);
  for (std::size_t t = begin; t < end; ++t) {
    const std::size_t place = (block.first + t) % (grid.rows * grid.columns);
    const std::size_t image = (block.first + t) / (grid.rows * grid.columns);
    const std::size_t top = place / grid.columns * side;
    const std::size_t left = place % grid.columns * side;
    float* pixels[kMaxProducts];
    for (std::size_t i = 0; i < side * side; ++i) {
      const std::size_t y = top + i / side;
      const std::size_t x = left + i % side;
      const bool inside = y < s.rows && x < s.columns;
      pixels[i] =
          inside ? output + image * s.out_image + (y * s.columns + x) * s.out_channels : nullptr;
    }
    transform_sums(side, block.sums + t * out_width, block.count * out_width, s.kernels, bias,
                   steps, pixels);
  }
}

}  // namespace

WinogradSide winograd_side(const ConvSizes& s) {
  const bool possible = s.kernel_h == 3 && s.kernel_w == 3 && s.stride_h == 1 && s.stride_w == 1 &&
                        s.shift_h == 0 && s.shift_w == 0;
  const std::size_t fewest = std::min(s.group_channels, s.kernels);
  const std::size_t most = std::max(s.group_channels, s.kernels);
  if (!possible || fewest < kLeastChannels || most > kMostChannels) return WinogradSide::kNone;
  const std::size_t pixels = s.rows * s.columns;
  if (pixels >= kLeastPixels) return WinogradSide::kFour;
  const bool small_pays = pixels >= kLeastSmallPixels && fewest >= kLeastSmallChannels;
  return small_pays ? WinogradSide::kTwo : WinogradSide::kNone;
}

WinogradConv pack_winograd(const ConvSizes& s, const float* weights, Workers& workers) {
  const TileVectors vectors = tile_vectors();
  const std::size_t width = whole_vectors(s.kernels, vectors.lanes);
  const WinogradSide tiles = winograd_side(s);
  const auto side = static_cast<std::size_t>(tiles);
  const std::size_t product = s.group_channels * width;
  WinogradConv packed{.side = tiles,
                      .channels = s.group_channels,
                      .kernels = s.kernels,
                      .lanes = vectors.lanes,
                      .panel_width = vectors.lanes * vectors.most,
                      .weights = AlignedFloats(products_of(side) * product)};
  const std::size_t panels = (width + packed.panel_width - 1) / packed.panel_width;
  workers.run(panels, [&](std::size_t panel, std::size_t) {
    const std::size_t first = panel * packed.panel_width;
    const std::size_t panel_width = std::min(packed.panel_width, width - first);
    const std::size_t kernels = std::min(panel_width, s.kernels - first);
    float* to = packed.weights.data() + first * s.group_channels;
    if (kernels < panel_width) {
      for (std::size_t i = 0; i < products_of(side); ++i) {
        std::fill_n(to + i * product, panel_width * s.group_channels, 0.0F);
      }
    }
    pack_panel(s, side, weights + first * patch_floats(s), kernels, panel_width, product, to);
  });
  return packed;
}

bool packed_for(const WinogradConv& packed, const ConvSizes& sizes) {
  return packed.weights && packed.channels == sizes.group_channels &&
         packed.kernels == sizes.kernels && packed.side == winograd_side(sizes);
}

std::size_t winograd_scratch_floats(const ConvSizes& s) {
  const std::size_t width = whole_vectors(s.kernels, tile_vectors().lanes);
  const auto side = static_cast<std::size_t>(winograd_side(s));
  return products_of(side) * block_tiles(s, side, width) * (s.group_channels + width) +
         s.group_channels;
}

void convolve_winograd(const ConvSizes& s, const float* input, const WinogradConv& packed,
                       const float* bias, const ElementSteps& steps, float* output, float* scratch,
                       Workers& workers) {
  const std::size_t side = side_of(packed);
  const TileGrid grid = grid_of(s, side);
  const std::size_t tiles = s.batch * grid.rows * grid.columns;
  const std::size_t width = whole_vectors(s.kernels, packed.lanes);
  const std::size_t most = block_tiles(s, side, width);
  const std::size_t products = products_of(side);
  TileBlock block{.side = side,
                  .first = 0,
                  .count = 0,
                  .tiles = scratch,
                  .sums = scratch + products * most * s.group_channels,
                  .brings_next = tiles <= kFewBlocks * most};
  float* zeros = block.sums + products * most * width;
  std::fill_n(zeros, s.group_channels, 0.0F);
  for (; block.first < tiles; block.first += most) {
    block.count = std::min(most, tiles - block.first);
    const std::size_t tasks = (block.count + kTilesInTask - 1) / kTilesInTask;
    workers.run(tasks, [&](std::size_t task, std::size_t) {
      transform_tiles(s, input, block, zeros, task * kTilesInTask,
                      std::min(block.count, (task + 1) * kTilesInTask));
    });
    workers.run(products, [&](std::size_t product, std::size_t) {
      multiply_product(packed, block, product);
    });
    workers.run(tasks, [&](std::size_t task, std::size_t) {
      write_outputs(s, block, width, bias, steps, output, task * kTilesInTask,
                    std::min(block.count, (task + 1) * kTilesInTask));
    });
  }
}

}  // namespace ravu::kernels
