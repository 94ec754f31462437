// Several windows side by side: each tap is one multiplication of as many bytes by one weight. With
// stride 2 the bytes come in pairs, the second of which is dropped.
#include "single_channel.h"

#include <bit>

#undef HWY_TARGET_INCLUDE
#define HWY_TARGET_INCLUDE "single_channel.cpp"
#include <hwy/foreach_target.h>
#include <hwy/highway.h>

HWY_BEFORE_NAMESPACE();
namespace ravu::fixpoint::HWY_NAMESPACE {
namespace {

namespace hn = hwy::HWY_NAMESPACE;

constexpr std::size_t kFewestLanes = 4;

#if HWY_TARGET != HWY_SCALAR  // whose vectors have no halves

// One byte for each lane of `d`: neighbours, or every second one.
template <std::size_t kStride, class D>
auto spread(D d, const std::uint8_t* bytes) {
  if constexpr (kStride == 1) {
    const hn::Rebind<std::uint8_t, D> db;
    return hn::PromoteTo(d, hn::LoadU(db, bytes));
  } else {
    const hn::Repartition<std::uint8_t, D> db;
    return hn::And(hn::BitCast(d, hn::LoadU(db, bytes)), hn::Set(d, std::int16_t{0xFF}));
  }
}

// The windows that lanes of `d` hold; they are neighbours. A product of a byte and a weight of at
// most 64 fits 16 bits, and so does the sum of two. kWidth is the kernel's width, or 0 for any.
template <std::size_t kStride, std::size_t kWidth, class D>
HWY_INLINE void sum_windows(D d, const SingleChannel& s, const std::uint8_t* bytes,
                            const std::int16_t* weights, float* sums) {
  const hn::Half<D> half;
  const hn::Rebind<std::int32_t, hn::Half<D>> wide;
  const std::size_t width = kWidth == 0 ? s.kernel_w : kWidth;
  auto low = hn::Zero(wide);
  auto high = low;
  const auto product = [&](const std::uint8_t* row, std::size_t i, std::size_t j) HWY_ATTR {
    const auto weight = hn::Set(d, weights[i * width + j]);
    return hn::Mul(spread<kStride>(d, row + j), weight);
  };
  const auto add = [&](auto products) HWY_ATTR {
    low = hn::Add(low, hn::PromoteTo(wide, hn::LowerHalf(half, products)));
    high = hn::Add(high, hn::PromoteTo(wide, hn::UpperHalf(half, products)));
  };
  for (std::size_t i = 0; i < s.kernel_h; ++i) {
    const std::uint8_t* row = bytes + i * s.width;
    std::size_t j = 0;
    for (; j + 2 <= width; j += 2) add(hn::Add(product(row, i, j), product(row, i, j + 1)));
    if (j < width) add(product(row, i, j));
  }
  const hn::RebindToFloat<decltype(wide)> df;
  hn::StoreU(hn::BitCast(df, low), df, sums);
  hn::StoreU(hn::BitCast(df, high), df, sums + hn::Lanes(wide));
}

#endif

float sum_window(const SingleChannel& s, const std::uint8_t* bytes, const std::int16_t* weights) {
  std::int32_t sum = 0;
  for (std::size_t i = 0; i < s.kernel_h; ++i) {
    for (std::size_t j = 0; j < s.kernel_w; ++j) {
      sum += std::int32_t{bytes[i * s.width + j]} * weights[i * s.kernel_w + j];
    }
  }
  return std::bit_cast<float>(sum);
}

// The last vector ends with the row, over windows that the one before it may have seen already.
// Rows shorter than a vector take one of half the length.
template <std::size_t kStride, std::size_t kWidth, std::size_t kLanes>
void sum_row(const SingleChannel& s, const std::uint8_t* bytes, const std::int16_t* weights,
             float* sums) {
#if HWY_TARGET != HWY_SCALAR
  if constexpr (kLanes >= kFewestLanes) {
    const hn::CappedTag<std::int16_t, kLanes> d;
    const std::size_t lanes = hn::Lanes(d);
    if (s.columns < lanes) return sum_row<kStride, kWidth, kLanes / 2>(s, bytes, weights, sums);
    std::size_t x = 0;
    for (; x + lanes <= s.columns; x += lanes) {
      sum_windows<kStride, kWidth>(d, s, bytes + x * kStride, weights, sums + x);
    }
    if (x == s.columns) return;
    x = s.columns - lanes;
    return sum_windows<kStride, kWidth>(d, s, bytes + x * kStride, weights, sums + x);
  }
#endif
  for (std::size_t x = 0; x < s.columns; ++x) {
    sums[x] = sum_window(s, bytes + x * kStride, weights);
  }
}

template <std::size_t kStride, std::size_t kWidth>
void sum_rows_of(const SingleChannel& s, const std::uint8_t* bytes, const std::int16_t* weights,
                 std::size_t first, std::size_t last, float* sums) {
  constexpr std::size_t kLanes = HWY_LANES(std::int16_t);
  for (std::size_t y = first; y < last; ++y) {
    sum_row<kStride, kWidth, kLanes>(s, bytes + y * s.stride_h * s.width, weights,
                                     sums + y * s.columns);
  }
}

void sum_rows(const SingleChannel& s, const std::uint8_t* bytes, const std::int16_t* weights,
              std::size_t first, std::size_t last, float* sums) {
  const bool usual = s.kernel_w == 3;
  if (s.stride_w == 1) {
    (usual ? sum_rows_of<1, 3> : sum_rows_of<1, 0>)(s, bytes, weights, first, last, sums);
  } else if (s.stride_w == 2) {
    (usual ? sum_rows_of<2, 3> : sum_rows_of<2, 0>)(s, bytes, weights, first, last, sums);
  } else {
    for (std::size_t y = first; y < last; ++y) {
      const std::uint8_t* row = bytes + y * s.stride_h * s.width;
      for (std::size_t x = 0; x < s.columns; ++x) {
        sums[y * s.columns + x] = sum_window(s, row + x * s.stride_w, weights);
      }
    }
  }
}

}  // namespace
}  // namespace ravu::fixpoint::HWY_NAMESPACE
HWY_AFTER_NAMESPACE();

#if HWY_ONCE
namespace ravu::fixpoint {

HWY_EXPORT(sum_rows);

void single_channel_rows(const SingleChannel& sizes, const std::uint8_t* bytes,
                         const std::int16_t* weights, std::size_t first, std::size_t last,
                         float* sums) {
  HWY_DYNAMIC_DISPATCH(sum_rows)(sizes, bytes, weights, first, last, sums);
}

}  // namespace ravu::fixpoint
#endif
