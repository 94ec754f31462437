// The innermost loop of convolution: a tile of some pixels times some output channels whose sums
// stay in registers while the patches pass by. Compiled for every instruction set.
#pragma once

#include <cstddef>

#include "kernels/element_steps.h"
#include "kernels/packed_conv.h"

namespace ravu::kernels {

inline constexpr std::size_t kTilePixels = 6;

// What a tile reads and writes: kTilePixels pixels. A pixel may stand there several times, with the
// same output: it is computed as often.
struct Tile {
  const float* const* pixels;  // the first float of each pixel's patch
  float* const* outputs;       // the first output channel of each pixel
  std::size_t channel;         // the first one that is computed
};

// The part of the patches that a call adds up, and the weights that go with it.
struct TileSlice {
  const PatchRun* first;
  const PatchRun* end;
  std::size_t row_floats, pixel_floats;  // of the data that the patches are read from
  const float* weights;                  // aligned to whole vectors; a row per patch float
  const float* bias;                     // added at the end; null: none
  const ElementSteps* steps;             // done after that, on whole vectors; null: none
  bool continues;                        // whether the outputs hold sums to go on from
  const std::byte* next = nullptr;       // weights to bring near meanwhile; null: none
  std::size_t next_step = 0;             // bytes of them for each float of the patch
};

// Where weights pass over this many blocks of pixels or fewer, waiting for their first use would be
// a good part of all the time: the next ones are brought near while the last ones are in use.
inline constexpr std::size_t kFewBlocks = 2;

// Has the tiles of `pixels` bring the weights near that follow the slice's own, which are `depth`
// rows of `width`; each an equal part, so `next` moves on by depth * next_step from tile to tile.
inline void bring_next(TileSlice& slice, std::size_t depth, std::size_t width, std::size_t pixels,
                       const float* end_of_weights) {
  const float* next = slice.weights + depth * width;
  if (next >= end_of_weights) return;
  slice.next = reinterpret_cast<const std::byte*>(next);
  slice.next_step = (width * sizeof(float) * kTilePixels + pixels - 1) / pixels;
}

// The vectors of this processor: floats of one, and how many of them a tile has at most.
struct TileVectors {
  std::size_t lanes, most;
};
inline constexpr std::size_t kMaxTileLanes = 16;
inline constexpr std::size_t kMaxTileVectors = 4;
TileVectors tile_vectors();

// Floats of a patch whose weights pass over all pixels before the next ones, about: the weights of
// a panel then stay in the nearest cache.
inline constexpr std::size_t kSliceDepth = 320;

// The size of the parts when `whole` is cut into as few as possible, all about equal, of `most` at
// most.
inline std::size_t even_part(std::size_t whole, std::size_t most) {
  const std::size_t parts = whole <= most ? 1 : (whole + most - 1) / most;
  return whole == 0 ? 1 : (whole + parts - 1) / parts;
}

// Output channels rounded up to whole vectors.
inline std::size_t whole_vectors(std::size_t channels, std::size_t lanes) {
  return (channels + lanes - 1) / lanes * lanes;
}

// The loop for tiles of this many vectors, 1 to `most`. Each output is written in whole vectors.
using MultiplyTile = void (*)(const TileSlice& slice, const Tile& tile);
MultiplyTile tile_loop(std::size_t vectors);

}  // namespace ravu::kernels
