// Each transform is the same step along columns, then along rows. The points of tiles of four are
// 0, 1, -1, 2, -2 and infinity, those of tiles of two 0, 1, -1 and infinity.
#include "kernels/winograd_transforms.h"

#undef HWY_TARGET_INCLUDE
#define HWY_TARGET_INCLUDE "kernels/winograd_transforms.cpp"
#include <hwy/foreach_target.h>
#include <hwy/highway.h>

#include "kernels/element_steps-inl.h"
#include "kernels/for_each_vector-inl.h"

HWY_BEFORE_NAMESPACE();
namespace ravu::kernels::HWY_NAMESPACE {
namespace {

namespace hn = hwy::HWY_NAMESPACE;

// kSide + 2 input values become as many factors.
template <std::size_t kSide, class D, class V>
HWY_INLINE void to_factors(D d, const V* x, V* y) {
  if constexpr (kSide == 2) {
    y[0] = hn::Sub(x[0], x[2]);
    y[1] = hn::Add(x[1], x[2]);
    y[2] = hn::Sub(x[2], x[1]);
    y[3] = hn::Sub(x[3], x[1]);
  } else {
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
}

// kSide + 2 sums become kSide outputs.
template <std::size_t kSide, class D, class V>
HWY_INLINE void to_outputs(D d, const V* m, V* y) {
  const auto sum1 = hn::Add(m[1], m[2]);
  const auto difference1 = hn::Sub(m[1], m[2]);
  if constexpr (kSide == 2) {
    y[0] = hn::Add(m[0], sum1);
    y[1] = hn::Add(difference1, m[3]);
  } else {
    const auto sum2 = hn::Add(m[3], m[4]);
    const auto difference2 = hn::Sub(m[3], m[4]);
    y[0] = hn::Add(hn::Add(m[0], sum1), sum2);
    y[1] = hn::MulAdd(hn::Set(d, 2.0F), difference2, difference1);
    y[2] = hn::MulAdd(hn::Set(d, 4.0F), sum2, sum1);
    y[3] = hn::Add(hn::MulAdd(hn::Set(d, 8.0F), difference2, difference1), m[5]);
  }
}

template <std::size_t kSide>
void transform_tile(const float* const* pixels, std::size_t channels, float* products,
                    std::size_t stride) {
  constexpr std::size_t kTile = kSide + 2;
  for_each_vector(channels, [=](auto d, std::size_t c) HWY_ATTR {
    using V = hn::Vec<decltype(d)>;
    V rows[kTile][kTile];
    for (std::size_t x = 0; x < kTile; ++x) {
      V column[kTile], factors[kTile];
      for (std::size_t y = 0; y < kTile; ++y) column[y] = hn::LoadU(d, pixels[y * kTile + x] + c);
      to_factors<kSide>(d, column, factors);
      for (std::size_t y = 0; y < kTile; ++y) rows[y][x] = factors[y];
    }
    for (std::size_t y = 0; y < kTile; ++y) {
      V factors[kTile];
      to_factors<kSide>(d, rows[y], factors);
      for (std::size_t x = 0; x < kTile; ++x) {
        hn::StoreU(factors[x], d, products + (y * kTile + x) * stride + c);
      }
    }
  });
}

template <std::size_t kSide>
void transform_sums(const float* products, std::size_t stride, std::size_t channels,
                    const float* bias, const ElementSteps& steps, float* const* pixels) {
  constexpr std::size_t kTile = kSide + 2;
  for_each_vector(channels, [=, &steps](auto d, std::size_t c) HWY_ATTR {
    using V = hn::Vec<decltype(d)>;
    const auto shift = bias == nullptr ? hn::Zero(d) : hn::LoadU(d, bias + c);
    V rows[kSide][kTile];
    for (std::size_t x = 0; x < kTile; ++x) {
      V sums[kTile], outputs[kSide];
      for (std::size_t y = 0; y < kTile; ++y) {
        sums[y] = hn::LoadU(d, products + (y * kTile + x) * stride + c);
      }
      to_outputs<kSide>(d, sums, outputs);
      for (std::size_t y = 0; y < kSide; ++y) rows[y][x] = outputs[y];
    }
    for (std::size_t y = 0; y < kSide; ++y) {
      V outputs[kSide];
      to_outputs<kSide>(d, rows[y], outputs);
      for (std::size_t x = 0; x < kSide; ++x) outputs[x] = hn::Add(outputs[x], shift);
      apply_steps<Lie::kSameChannels>(d, steps, c, outputs);
      for (std::size_t x = 0; x < kSide; ++x) {
        float* pixel = pixels[y * kSide + x];
        if (pixel != nullptr) hn::StoreU(outputs[x], d, pixel + c);
      }
    }
  });
}

// The exports below need functions that are no templates.
void transform_tile_of_two(const float* const* pixels, std::size_t channels, float* products,
                           std::size_t stride) {
  transform_tile<2>(pixels, channels, products, stride);
}

void transform_tile_of_four(const float* const* pixels, std::size_t channels, float* products,
                            std::size_t stride) {
  transform_tile<4>(pixels, channels, products, stride);
}

void transform_sums_of_two(const float* products, std::size_t stride, std::size_t channels,
                           const float* bias, const ElementSteps& steps, float* const* pixels) {
  transform_sums<2>(products, stride, channels, bias, steps, pixels);
}

void transform_sums_of_four(const float* products, std::size_t stride, std::size_t channels,
                            const float* bias, const ElementSteps& steps, float* const* pixels) {
  transform_sums<4>(products, stride, channels, bias, steps, pixels);
}

}  // namespace
}  // namespace ravu::kernels::HWY_NAMESPACE
HWY_AFTER_NAMESPACE();

#if HWY_ONCE
namespace ravu::kernels {

HWY_EXPORT(transform_tile_of_two);
HWY_EXPORT(transform_tile_of_four);
HWY_EXPORT(transform_sums_of_two);
HWY_EXPORT(transform_sums_of_four);

void transform_tile(std::size_t side, const float* const* pixels, std::size_t channels,
                    float* products, std::size_t stride) {
  const auto transform = side == 2 ? HWY_DYNAMIC_DISPATCH(transform_tile_of_two)
                                   : HWY_DYNAMIC_DISPATCH(transform_tile_of_four);
  transform(pixels, channels, products, stride);
}

void transform_sums(std::size_t side, const float* products, std::size_t stride,
                    std::size_t channels, const float* bias, const ElementSteps& steps,
                    float* const* pixels) {
  const auto transform = side == 2 ? HWY_DYNAMIC_DISPATCH(transform_sums_of_two)
                                   : HWY_DYNAMIC_DISPATCH(transform_sums_of_four);
  transform(products, stride, channels, bias, steps, pixels);
}

}  // namespace ravu::kernels
#endif
