// For each float of the patch one row of weights is loaded and one float of each pixel broadcast:
// six multiply-adds for each load of weights.
#include "kernels/tile.h"

#include <hwy/cache_control.h>

#undef HWY_TARGET_INCLUDE
#define HWY_TARGET_INCLUDE "kernels/tile.cpp"
#include <hwy/foreach_target.h>
#include <hwy/highway.h>

#include "kernels/element_steps-inl.h"

HWY_BEFORE_NAMESPACE();
namespace ravu::kernels::HWY_NAMESPACE {
namespace {

namespace hn = hwy::HWY_NAMESPACE;
using Floats = hn::ScalableTag<float>;
using Vector = hn::Vec<Floats>;

// Six pixels times four vectors, a row of weights and a broadcast fill 32 registers; times two
// vectors they fill 16.
#if HWY_TARGET <= HWY_AVX3
constexpr std::size_t kMostVectors = 4;
#else
constexpr std::size_t kMostVectors = 2;
#endif

// The loops over tile pixels and vectors have constant bounds and are unrolled, which keeps the
// accumulators in registers.
template <std::size_t kVectors, bool kBringsNext>
HWY_NOINLINE void multiply_tile_with(const TileSlice& slice, const Tile& tile) {
  const Floats d;
  const std::size_t lanes = hn::Lanes(d);
  Vector sums[kTilePixels][kVectors];
#pragma GCC unroll 8
  for (std::size_t p = 0; p < kTilePixels; ++p) {
#pragma GCC unroll 8
    for (std::size_t v = 0; v < kVectors; ++v) {
      const float* output = tile.outputs[p] + tile.channel + v * lanes;
      sums[p][v] = slice.continues ? hn::LoadU(d, output) : hn::Zero(d);
    }
  }
  const float* HWY_RESTRICT weights = slice.weights;
  const std::byte* next = slice.next;
  for (const PatchRun* run = slice.first; run != slice.end; ++run) {
    const std::size_t offset =
        run->row * slice.row_floats + run->column * slice.pixel_floats + run->channel;
    const float* values[kTilePixels];
#pragma GCC unroll 8
    for (std::size_t p = 0; p < kTilePixels; ++p) values[p] = tile.pixels[p] + offset;
    for (std::size_t k = 0; k < run->length; ++k) {
      Vector row[kVectors];
#pragma GCC unroll 8
      for (std::size_t v = 0; v < kVectors; ++v) row[v] = hn::Load(d, weights + v * lanes);
      weights += kVectors * lanes;
      if constexpr (kBringsNext) {
        hwy::Prefetch(next);
        next += slice.next_step;
      }
#pragma GCC unroll 8
      for (std::size_t p = 0; p < kTilePixels; ++p) {
        const auto value = hn::Set(d, values[p][k]);
#pragma GCC unroll 8
        for (std::size_t v = 0; v < kVectors; ++v) {
          sums[p][v] = hn::MulAdd(value, row[v], sums[p][v]);
        }
      }
    }
  }
#pragma GCC unroll 8
  for (std::size_t v = 0; v < kVectors; ++v) {
    const auto bias = slice.bias == nullptr ? hn::Zero(d) : hn::LoadU(d, slice.bias + v * lanes);
    Vector results[kTilePixels];
#pragma GCC unroll 8
    for (std::size_t p = 0; p < kTilePixels; ++p) {
      results[p] = slice.bias == nullptr ? sums[p][v] : hn::Add(sums[p][v], bias);
    }
    if (slice.steps != nullptr) {
      apply_steps<Lie::kSameChannels>(d, *slice.steps, v * lanes, results);
    }
#pragma GCC unroll 8
    for (std::size_t p = 0; p < kTilePixels; ++p) {
      hn::StoreU(results[p], d, tile.outputs[p] + tile.channel + v * lanes);
    }
  }
}

template <std::size_t kVectors>
void multiply_tile(const TileSlice& slice, const Tile& tile) {
  if (slice.next == nullptr) {
    multiply_tile_with<kVectors, false>(slice, tile);
  } else {
    multiply_tile_with<kVectors, true>(slice, tile);
  }
}

MultiplyTile tile_loop(std::size_t vectors) {
#if HWY_TARGET <= HWY_AVX3
  if (vectors == 4) return multiply_tile<4>;
  if (vectors == 3) return multiply_tile<3>;
#endif
  return vectors == 2 ? multiply_tile<2> : multiply_tile<1>;
}

TileVectors tile_vectors() {
  return {hn::Lanes(Floats()), kMostVectors};
}

}  // namespace
}  // namespace ravu::kernels::HWY_NAMESPACE
HWY_AFTER_NAMESPACE();

#if HWY_ONCE
namespace ravu::kernels {

HWY_EXPORT(tile_vectors);
HWY_EXPORT(tile_loop);

TileVectors tile_vectors() {
  return HWY_DYNAMIC_DISPATCH(tile_vectors)();
}

MultiplyTile tile_loop(std::size_t vectors) {
  return HWY_DYNAMIC_DISPATCH(tile_loop)(vectors);
}

}  // namespace ravu::kernels
#endif
