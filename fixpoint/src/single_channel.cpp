// Several windows side by side: each tap is one multiplication of as many bytes by one weight.
#include "single_channel.h"

#undef HWY_TARGET_INCLUDE
#define HWY_TARGET_INCLUDE "single_channel.cpp"
#include <hwy/foreach_target.h>
#include <hwy/highway.h>

HWY_BEFORE_NAMESPACE();
namespace ravu::fixpoint::HWY_NAMESPACE {
namespace {

namespace hn = hwy::HWY_NAMESPACE;

// The windows that lanes of `d` hold; they are neighbours.
template <class D>
void sum_windows(D d, const SingleChannel& s, const std::uint8_t* bytes, const std::int8_t* weights,
                 float* sums) {
  const hn::Rebind<std::uint8_t, D> db;
  auto sum = hn::Zero(d);
  for (std::size_t i = 0; i < s.kernel_h; ++i) {
    const std::uint8_t* row = bytes + i * s.width;
    for (std::size_t j = 0; j < s.kernel_w; ++j) {
      const auto weight = hn::Set(d, std::int32_t{weights[i * s.kernel_w + j]});
      sum = hn::Add(sum, hn::Mul(hn::PromoteTo(d, hn::LoadU(db, row + j)), weight));
    }
  }
  const hn::RebindToFloat<D> df;
  hn::StoreU(hn::BitCast(df, sum), df, sums);
}

void row(const SingleChannel& s, const std::uint8_t* bytes, const std::int8_t* weights,
         float* sums) {
  const hn::ScalableTag<std::int32_t> d;
  const hn::CappedTag<std::int32_t, 1> one;
  const std::size_t lanes = hn::Lanes(d);
  std::size_t x = 0;
  if (s.stride_w == 1) {
    for (; x + lanes <= s.columns; x += lanes) sum_windows(d, s, bytes + x, weights, sums + x);
  }
  for (; x < s.columns; ++x) sum_windows(one, s, bytes + x * s.stride_w, weights, sums + x);
}

}  // namespace
}  // namespace ravu::fixpoint::HWY_NAMESPACE
HWY_AFTER_NAMESPACE();

#if HWY_ONCE
namespace ravu::fixpoint {

HWY_EXPORT(row);

void single_channel_row(const SingleChannel& sizes, const std::uint8_t* bytes,
                        const std::int8_t* weights, std::size_t row, float* sums) {
  HWY_DYNAMIC_DISPATCH(row)
  (sizes, bytes + row * sizes.stride_h * sizes.width, weights, sums + row * sizes.columns);
}

}  // namespace ravu::fixpoint
#endif
