// Bands of columns, each in blocks of rows: of both matrices whole cache lines are used.
#include <algorithm>

#include "kernels/kernels.h"
#include "kernels/workers.h"

#undef HWY_TARGET_INCLUDE
#define HWY_TARGET_INCLUDE "kernels/transpose.cpp"
#include <hwy/foreach_target.h>
#include <hwy/highway.h>

#include "kernels/transpose-inl.h"

HWY_BEFORE_NAMESPACE();
namespace ravu::kernels::HWY_NAMESPACE {
namespace {

// Rows of a block: with the columns of a band, all its cache lines fit the innermost cache.
constexpr std::size_t kBlockRows = 16;

// All rows of one band of columns.
void turn_band(const float* from, std::size_t from_stride, std::size_t rows, std::size_t columns,
               float* to, std::size_t to_stride) {
  for (std::size_t top = 0; top < rows; top += kBlockRows) {
    const std::size_t count = std::min(kBlockRows, rows - top);
    turn_block(from + top * from_stride, from_stride, count, columns, to + top, to_stride);
  }
}

}  // namespace
}  // namespace ravu::kernels::HWY_NAMESPACE
HWY_AFTER_NAMESPACE();

#if HWY_ONCE
namespace ravu::kernels {
namespace {

HWY_EXPORT(turn_band);

// Columns that one thread takes at a time: a cache line.
constexpr std::size_t kBandColumns = 16;

std::size_t bands_of(std::size_t columns) {
  return (columns + kBandColumns - 1) / kBandColumns;
}

void turn(std::size_t band, const float* from, std::size_t from_stride, std::size_t rows,
          std::size_t columns, float* to, std::size_t to_stride) {
  const std::size_t first = band * kBandColumns;
  HWY_DYNAMIC_DISPATCH(turn_band)
  (from + first, from_stride, rows, std::min(kBandColumns, columns - first), to + first * to_stride,
   to_stride);
}

}  // namespace

void transpose(const float* from, std::size_t from_stride, std::size_t rows, std::size_t columns,
               float* to, std::size_t to_stride, Workers& workers) {
  workers.run(bands_of(columns), [=](std::size_t band, std::size_t) {
    turn(band, from, from_stride, rows, columns, to, to_stride);
  });
}

void transpose(const float* from, std::size_t from_stride, std::size_t rows, std::size_t columns,
               float* to, std::size_t to_stride) {
  for (std::size_t band = 0; band < bands_of(columns); ++band) {
    turn(band, from, from_stride, rows, columns, to, to_stride);
  }
}

}  // namespace ravu::kernels
#endif
