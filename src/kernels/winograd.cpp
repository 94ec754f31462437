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

constexpr std::size_t kScratchFloats = std::size_t{1} << 20;  // 4 MiB of tiles and sums
constexpr std::size_t kMostTiles = 240;
constexpr std::size_t kLeastChannels = 16;  // of the input and of the output
constexpr std::size_t kMostChannels = 1024;
constexpr std::size_t kLeastPixels = 144;  // of the output
constexpr std::size_t kTilesInTask = 8;    // of the transforms

// Tiles of one image, row by row.
struct TileGrid {
  std::size_t rows, columns;
};

TileGrid grid_of(const ConvSizes& s) {
  const auto tiles = [](std::size_t pixels) {
    return (pixels + kWinogradOutput - 1) / kWinogradOutput;
  };
  return {tiles(s.rows), tiles(s.columns)};
}

// Tiles that are treated together.
std::size_t block_tiles(const ConvSizes& s, std::size_t width) {
  const TileGrid grid = grid_of(s);
  const std::size_t fitting = kScratchFloats / (kWinogradProducts * (s.group_channels + width));
  const std::size_t most = std::clamp<std::size_t>(fitting, 1, kMostTiles);
  return std::min(most, s.batch * grid.rows * grid.columns);
}

// One kernel's 3 x 3 weights for one channel, which stand `stride` floats apart, become 36 factors.
std::array<float, kWinogradProducts> transform_kernel(const float* weights, std::size_t stride) {
  constexpr std::array<std::array<double, 3>, kWinogradTile> kFactors{
      {{1.0 / 4, 0, 0},
       {-1.0 / 6, -1.0 / 6, -1.0 / 6},
       {-1.0 / 6, 1.0 / 6, -1.0 / 6},
       {1.0 / 24, 1.0 / 12, 1.0 / 6},
       {1.0 / 24, -1.0 / 12, 1.0 / 6},
       {0, 0, 1}}};
  std::array<float, kWinogradProducts> result;
  for (std::size_t i = 0; i < kWinogradTile; ++i) {
    for (std::size_t j = 0; j < kWinogradTile; ++j) {
      double sum = 0;
      for (std::size_t y = 0; y < 3; ++y) {
        for (std::size_t x = 0; x < 3; ++x) {
          sum += kFactors[i][y] * kFactors[j][x] * weights[(y * 3 + x) * stride];
        }
      }
      result[i * kWinogradTile + j] = static_cast<float>(sum);
    }
  }
  return result;
}

// The tiles [first, first + count) of the batch, their transformed values and sums.
struct TileBlock {
  std::size_t first, count;
  float* tiles;  // [product][tile][channel]
  float* sums;   // [product][tile][output channel], whole vectors
};

void transform_tiles(const ConvSizes& s, const float* input, const TileBlock& block,
                     const float* zeros, std::size_t begin, std::size_t end) {
  const TileGrid grid = grid_of(s);
  for (std::size_t t = begin; t < end; ++t) {
    const std::size_t place = (block.first + t) % (grid.rows * grid.columns);
    const std::size_t image = (block.first + t) / (grid.rows * grid.columns);
    const std::size_t top = place / grid.columns * kWinogradOutput;
    const std::size_t left = place % grid.columns * kWinogradOutput;
    const float* pixels[kWinogradProducts];
    for (std::size_t i = 0; i < kWinogradProducts; ++i) {
      const std::size_t y = top + i / kWinogradTile;
      const std::size_t x = left + i % kWinogradTile;
      const bool inside =
          y >= s.pad_h && y < s.pad_h + s.height && x >= s.pad_w && x < s.pad_w + s.width;
      pixels[i] =
          inside ? input + ((image * s.height + y - s.pad_h) * s.width + x - s.pad_w) * s.channels
                 : zeros;
    }
    transform_tile(pixels, s.group_channels, block.tiles + t * s.group_channels,
                   block.count * s.group_channels);
  }
}

// One of the 36 products, for all channels of the output.
void multiply_product(const WinogradConv& packed, const TileBlock& block, std::size_t product) {
  const std::size_t out_width = whole_vectors(packed.kernels, packed.lanes);
  const PatchRun run{0, 0, static_cast<std::uint32_t>(packed.channels)};
  alignas(64) float spare[kMaxTileVectors * kMaxTileLanes];
  const float* tiles = block.tiles + product * block.count * packed.channels;
  float* sums = block.sums + product * block.count * out_width;
  const float* weights = packed.weights.data() + product * packed.channels * out_width;
  for (std::size_t first = 0; first < out_width; first += packed.panel_width) {
    const std::size_t width = std::min(packed.panel_width, out_width - first);
    const MultiplyTile multiply = tile_loop(width / packed.lanes);
    const TileSlice slice{.first = &run,
                          .end = &run + 1,
                          .row_floats = 0,
                          .pixel_floats = 0,
                          .weights = weights + first * packed.channels,
                          .bias = nullptr,
                          .continues = false};
    for (std::size_t t = 0; t < block.count; t += kTilePixels) {
      Tile tile;
      for (std::size_t p = 0; p < kTilePixels; ++p) {
        const bool inside = t + p < block.count;
        tile.pixels[p] = tiles + (inside ? t + p : block.count - 1) * packed.channels;
        tile.outputs[p] = inside ? sums + (t + p) * out_width + first : spare;
      }
      multiply(slice, tile);
    }
  }
}

void write_outputs(const ConvSizes& s, const TileBlock& block, std::size_t out_width,
                   const float* bias, float* output, std::size_t begin, std::size_t end) {
  const TileGrid grid = grid_of(s);
  for (std::size_t t = begin; t < end; ++t) {
    const std::size_t place = (block.first + t) % (grid.rows * grid.columns);
    const std::size_t image = (block.first + t) / (grid.rows * grid.columns);
    const std::size_t top = place / grid.columns * kWinogradOutput;
    const std::size_t left = place % grid.columns * kWinogradOutput;
    float* pixels[kWinogradOutput * kWinogradOutput];
    for (std::size_t i = 0; i < kWinogradOutput * kWinogradOutput; ++i) {
      const std::size_t y = top + i / kWinogradOutput;
      const std::size_t x = left + i % kWinogradOutput;
      const bool inside = y < s.rows && x < s.columns;
      pixels[i] =
          inside ? output + image * s.out_image + (y * s.columns + x) * s.out_channels : nullptr;
    }
    transform_sums(block.sums + t * out_width, block.count * out_width, s.kernels, bias, pixels);
  }
}

}  // namespace

bool winograd_pays(const ConvSizes& s) {
  const bool possible = s.kernel_h == 3 && s.kernel_w == 3 && s.stride_h == 1 && s.stride_w == 1 &&
                        s.shift_h == 0 && s.shift_w == 0;
  return possible && s.group_channels >= kLeastChannels && s.group_channels <= kMostChannels &&
         s.kernels >= kLeastChannels && s.kernels <= kMostChannels &&
         s.rows * s.columns >= kLeastPixels;
}

WinogradConv pack_winograd(const ConvSizes& s, const float* weights) {
  const TileVectors vectors = tile_vectors();
  const std::size_t width = whole_vectors(s.kernels, vectors.lanes);
  WinogradConv packed{.channels = s.group_channels,
                      .kernels = s.kernels,
                      .lanes = vectors.lanes,
                      .panel_width = vectors.lanes * vectors.most,
                      .weights = AlignedFloats(kWinogradProducts * s.group_channels * width)};
  float* to = packed.weights.data();
  std::fill_n(to, packed.weights.size(), 0.0F);
  for (std::size_t m = 0; m < s.kernels; ++m) {
    const std::size_t first = m / packed.panel_width * packed.panel_width;
    const std::size_t panel_width = std::min(packed.panel_width, width - first);
    for (std::size_t c = 0; c < s.group_channels; ++c) {
      const auto factors = transform_kernel(weights + m * patch_floats(s) + c, s.group_channels);
      const std::size_t place = first * s.group_channels + c * panel_width + (m - first);
      for (std::size_t i = 0; i < kWinogradProducts; ++i) {
        to[i * s.group_channels * width + place] = factors[i];
      }
    }
  }
  return packed;
}

bool packed_for(const WinogradConv& packed, const ConvSizes& sizes) {
  return packed.weights && packed.channels == sizes.group_channels &&
         packed.kernels == sizes.kernels && winograd_pays(sizes);
}

std::size_t winograd_scratch_floats(const ConvSizes& s) {
  const std::size_t width = whole_vectors(s.kernels, tile_vectors().lanes);
  return kWinogradProducts * block_tiles(s, width) * (s.group_channels + width) + s.group_channels;
}

void convolve_winograd(const ConvSizes& s, const float* input, const WinogradConv& packed,
                       const float* bias, float* output, float* scratch, Workers& workers) {
  const TileGrid grid = grid_of(s);
  const std::size_t tiles = s.batch * grid.rows * grid.columns;
  const std::size_t width = whole_vectors(s.kernels, packed.lanes);
  const std::size_t most = block_tiles(s, width);
  TileBlock block{0, 0, scratch, scratch + kWinogradProducts * most * s.group_channels};
  float* zeros = block.sums + kWinogradProducts * most * width;
  std::fill_n(zeros, s.group_channels, 0.0F);
  for (; block.first < tiles; block.first += most) {
    block.count = std::min(most, tiles - block.first);
    const std::size_t tasks = (block.count + kTilesInTask - 1) / kTilesInTask;
    workers.run(tasks, [&](std::size_t task, std::size_t) {
      transform_tiles(s, input, block, zeros, task * kTilesInTask,
                      std::min(block.count, (task + 1) * kTilesInTask));
    });
    workers.run(kWinogradProducts, [&](std::size_t product, std::size_t) {
      multiply_product(packed, block, product);
    });
    workers.run(tasks, [&](std::size_t task, std::size_t) {
      write_outputs(s, block, width, bias, output, task * kTilesInTask,
                    std::min(block.count, (task + 1) * kTilesInTask));
    });
  }
}

}  // namespace ravu::kernels
