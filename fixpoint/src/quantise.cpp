// Element-wise passes over activations, compiled once per instruction set. Sums are stored where
// the floats will be: they are loaded as floats and only their bits are looked at.
#include "quantise.h"

#include <cmath>

#undef HWY_TARGET_INCLUDE
#define HWY_TARGET_INCLUDE "quantise.cpp"
#include <hwy/foreach_target.h>
#include <hwy/highway.h>

HWY_BEFORE_NAMESPACE();
namespace ravu::fixpoint::HWY_NAMESPACE {
namespace {

namespace hn = hwy::HWY_NAMESPACE;

constexpr float kGreatestFinite = 3.4028234663852886e38F;

// Calls step(d, i) for whole vectors of n elements, then for the rest one by one.
template <class Step>
void for_each_vector(std::size_t n, Step step) {
  const hn::ScalableTag<float> d;
  const hn::CappedTag<float, 1> one;
  const std::size_t lanes = hn::Lanes(d);
  std::size_t i = 0;
  for (; i + lanes <= n; i += lanes) step(d, i);
  for (; i < n; ++i) step(one, i);
}

void extent_of(const float* values, std::size_t n, float* magnitude, float* least) {
  const hn::ScalableTag<float> d;
  const auto limit = hn::Set(d, kGreatestFinite);
  const auto zero = hn::Zero(d);
  auto greatest = zero;
  auto lowest = zero;
  const auto take = [&](auto x) {
    const auto size = hn::Abs(x);
    greatest = hn::Max(greatest, hn::IfThenElseZero(hn::Le(size, limit), size));
    lowest = hn::IfThenElse(hn::Lt(x, lowest), x, lowest);
  };
  const std::size_t lanes = hn::Lanes(d);
  std::size_t i = 0;
  for (; i + lanes <= n; i += lanes) take(hn::LoadU(d, values + i));
  for (; i < n; ++i) take(hn::Set(d, values[i]));
  *magnitude = hn::GetLane(hn::MaxOfLanes(d, greatest));
  *least = hn::GetLane(hn::MinOfLanes(d, lowest));
}

template <class D>
void quantise_lanes(D d, const float* values, float factor, float rounding, std::int32_t zero_point,
                    std::uint8_t* bytes) {
  const hn::RebindToSigned<D> di;
  const hn::Rebind<std::uint8_t, D> db;
  const auto scaled = hn::Mul(hn::LoadU(d, values), hn::Set(d, factor));
  const auto number = hn::IfThenElseZero(hn::Eq(scaled, scaled), scaled);
  const auto rounded = hn::Floor(hn::Add(number, hn::Set(d, rounding)));
  const auto limited = hn::Min(hn::Max(rounded, hn::Set(d, -127.0F)), hn::Set(d, 127.0F));
  const auto integer = hn::Add(hn::ConvertTo(di, limited), hn::Set(di, zero_point));
  hn::StoreU(hn::DemoteTo(db, integer), db, bytes);
}

// The last vector ends with the values, over some that the one before it may have seen already:
// rows of a channel by itself are short. Fewer than a vector take one of half the length.
template <std::size_t kLanes>
void quantise_with(const float* values, std::size_t n, float factor, float rounding,
                   std::int32_t zero_point, std::uint8_t* bytes) {
  const hn::CappedTag<float, kLanes> d;
  const std::size_t lanes = hn::Lanes(d);
  if constexpr (kLanes > 1) {
    if (n < lanes) {
      return quantise_with<kLanes / 2>(values, n, factor, rounding, zero_point, bytes);
    }
  }
  std::size_t i = 0;
  for (; i + lanes <= n; i += lanes) {
    quantise_lanes(d, values + i, factor, rounding, zero_point, bytes + i);
  }
  if (i == n) return;
  quantise_lanes(d, values + n - lanes, factor, rounding, zero_point, bytes + n - lanes);
}

void quantise(const float* values, std::size_t n, float factor, float rounding,
              std::int32_t zero_point, std::uint8_t* bytes) {
  quantise_with<HWY_LANES(float)>(values, n, factor, rounding, zero_point, bytes);
}

template <bool kBias>
void dequantise_run(float* row, std::size_t n, const std::int32_t* offsets, const float* steps,
                    const float* bias) {
  for_each_vector(n, [=](auto d, std::size_t i) {
    const hn::RebindToSigned<decltype(d)> di;
    const auto sum = hn::Sub(hn::BitCast(di, hn::LoadU(d, row + i)), hn::LoadU(di, offsets + i));
    const auto value = hn::Mul(hn::ConvertTo(d, sum), hn::LoadU(d, steps + i));
    if constexpr (kBias) {
      hn::StoreU(hn::Add(value, hn::LoadU(d, bias + i)), d, row + i);
    } else {
      hn::StoreU(value, d, row + i);
    }
  });
}

void dequantise(float* sums, std::size_t n, std::size_t period, const std::int32_t* offsets,
                const float* steps, const float* bias) {
  for (std::size_t i = 0; i < n; i += period) {
    const std::size_t run = n - i < period ? n - i : period;
    if (bias == nullptr) {
      dequantise_run<false>(sums + i, run, offsets, steps, bias);
    } else {
      dequantise_run<true>(sums + i, run, offsets, steps, bias);
    }
  }
}

void add_sums(float* sums, const std::int32_t* more, std::size_t n) {
  for_each_vector(n, [=](auto d, std::size_t i) {
    const hn::RebindToSigned<decltype(d)> di;
    const auto sum = hn::Add(hn::BitCast(di, hn::LoadU(d, sums + i)), hn::LoadU(di, more + i));
    hn::StoreU(hn::BitCast(d, sum), d, sums + i);
  });
}

}  // namespace
}  // namespace ravu::fixpoint::HWY_NAMESPACE
HWY_AFTER_NAMESPACE();

#if HWY_ONCE
namespace ravu::fixpoint {

HWY_EXPORT(extent_of);
HWY_EXPORT(quantise);
HWY_EXPORT(dequantise);
HWY_EXPORT(add_sums);

Extent extent_of(const float* values, std::size_t n) {
  Extent extent;
  float least = 0;
  HWY_DYNAMIC_DISPATCH(extent_of)(values, n, &extent.magnitude, &least);
  extent.signs = least < 0;
  return extent;
}

void quantise(const float* values, std::size_t n, const Quantiser& to_bytes, std::uint8_t* bytes) {
  HWY_DYNAMIC_DISPATCH(quantise)
  (values, n, to_bytes.factor, to_bytes.rounding, to_bytes.zero_point, bytes);
}

void dequantise(float* sums, std::size_t n, const Steps& steps) {
  HWY_DYNAMIC_DISPATCH(dequantise)
  (sums, n, steps.steps.size(), steps.offsets.data(), steps.steps.data(),
   steps.bias.empty() ? nullptr : steps.bias.data());
}

void add_sums(float* sums, const std::int32_t* more, std::size_t n) {
  HWY_DYNAMIC_DISPATCH(add_sums)(sums, more, n);
}

float quantise_weights(const float* weights, std::size_t n, float range, std::int8_t* integers) {
  const float greatest = extent_of(weights, n).magnitude;
  const float factor = range / greatest;
  for (std::size_t i = 0; i < n; ++i) {
    const float scaled = weights[i] * factor;
    const float limited = scaled > range ? range : scaled < -range ? -range : scaled;
    integers[i] = limited == limited ? static_cast<std::int8_t>(std::round(limited)) : 0;
  }
  return greatest / range;
}

}  // namespace ravu::fixpoint
#endif
