// Each transform is the same step along columns, then along rows; the points are 0, 1, -1, 2, -2
// and infinity.
#include "kernels/winograd_transforms.h"

#undef HWY_TARGET_INCLUDE
#define HWY_TARGET_INCLUDE "kernels/winograd_transforms.cpp"
#include <hwy/foreach_target.h>
#include <hwy/highway.h>

#include "kernels/for_each_vector-inl.h"

HWY_BEFORE_NAMESPACE();
namespace ravu::kernels::HWY_NAMESPACE {
namespace {

namespace hn = hwy::HWY_NAMESPACE;

// Six input values become six factors.
template <class D, class V>
HWY_INLINE void to_factors(D d, const V* x, V* y) {
  const auto two = hn::Set(d, 2.0F);
  const auto four = hn::Set(d, 4.0F);
  const auto five = hn::Set(d, 5.0F);
  y[0] = hn::Add(hn::NegMulAdd(five, x[2], hn::Mul(four, x[0])), x[4]);
  const auto even = hn::NegMulAdd(four, x[2], x[4]);
  const auto odd = hn::NegMulAdd(four, x[1], x[3]);
  y[1] = hn::Add(even, odd);
  y[2] = hn::Sub(even, odd);
  const auto outer = hn::Sub(x[4], x[2]);
  const auto inner = hn::Mul(two, hn::Sub(x[3], x[1]));
  y[3] = hn::Add(outer, inner);
  y[4] = hn::Sub(outer, inner);
  y[5] = hn::Add(hn::NegMulAdd(five, x[3], hn::Mul(four, x[1])), x[5]);
}

// Six sums become four outputs.
template <class D, class V>
HWY_INLINE void to_outputs(D d, const V* m, V* y) {
  const auto sum1 = hn::Add(m[1], m[2]);
  const auto difference1 = hn::Sub(m[1], m[2]);
  const auto sum2 = hn::Add(m[3], m[4]);
  const auto difference2 = hn::Sub(m[3], m[4]);
  y[0] = hn::Add(hn::Add(m[0], sum1), sum2);
  y[1] = hn::MulAdd(hn::Set(d, 2.0F), difference2, difference1);
  y[2] = hn::MulAdd(hn::Set(d, 4.0F), sum2, sum1);
  y[3] = hn::Add(hn::MulAdd(hn::Set(d, 8.0F), difference2, difference1), m[5]);
}

void transform_tile(const float* const* pixels, std::size_t channels, float* products,
                    std::size_t stride) {
  for_each_vector(channels, [=](auto d, std::size_t c) HWY_ATTR {
    using V = hn::Vec<decltype(d)>;
    V rows[6][6];
    for (std::size_t x = 0; x < 6; ++x) {
      V column[6], factors[6];
      for (std::size_t y = 0; y < 6; ++y) column[y] = hn::LoadU(d, pixels[y * 6 + x] + c);
      to_factors(d, column, factors);
      for (std::size_t y = 0; y < 6; ++y) rows[y][x] = factors[y];
    }
    for (std::size_t y = 0; y < 6; ++y) {
      V factors[6];
      to_factors(d, rows[y], factors);
      for (std::size_t x = 0; x < 6; ++x) {
        hn::StoreU(factors[x], d, products + (y * 6 + x) * stride + c);
      }
    }
  });
}

void transform_sums(const float* products, std::size_t stride, std::size_t channels,
                    const float* bias, float* const* pixels) {
  for_each_vector(channels, [=](auto d, std::size_t c) HWY_ATTR {
    using V = hn::Vec<decltype(d)>;
    const auto shift = bias == nullptr ? hn::Zero(d) : hn::LoadU(d, bias + c);
    V rows[4][6];
    for (std::size_t x = 0; x < 6; ++x) {
      V sums[6], outputs[4];
      for (std::size_t y = 0; y < 6; ++y) {
        sums[y] = hn::LoadU(d, products + (y * 6 + x) * stride + c);
      }
      to_outputs(d, sums, outputs);
      for (std::size_t y = 0; y < 4; ++y) rows[y][x] = outputs[y];
    }
    for (std::size_t y = 0; y < 4; ++y) {
      V outputs[4];
      to_outputs(d, rows[y], outputs);
      for (std::size_t x = 0; x < 4; ++x) {
        float* pixel = pixels[y * 4 + x];
        if (pixel != nullptr) hn::StoreU(hn::Add(outputs[x], shift), d, pixel + c);
      }
    }
  });
}

}  // namespace
}  // namespace ravu::kernels::HWY_NAMESPACE
HWY_AFTER_NAMESPACE();

#if HWY_ONCE
namespace ravu::kernels {

HWY_EXPORT(transform_tile);
HWY_EXPORT(transform_sums);

void transform_tile(const float* const* pixels, std::size_t channels, float* products,
                    std::size_t stride) {
  HWY_DYNAMIC_DISPATCH(transform_tile)(pixels, channels, products, stride);
}

void transform_sums(const float* products, std::size_t stride, std::size_t channels,
                    const float* bias, float* const* pixels) {
  HWY_DYNAMIC_DISPATCH(transform_sums)(products, stride, channels, bias, pixels);
}

}  // namespace ravu::kernels
#endif
