// Kernels whose parameters repeat along the data, as parameters per channel do. Short parameter
// vectors are repeated into a longer pattern first: few channels fill whole registers all the same.
#include "kernels/kernels.h"

#undef HWY_TARGET_INCLUDE
#define HWY_TARGET_INCLUDE "kernels/channelwise.cpp"
#include <hwy/foreach_target.h>
#include <hwy/highway.h>

#include "kernels/for_each_vector-inl.h"

HWY_BEFORE_NAMESPACE();
namespace ravu::kernels::HWY_NAMESPACE {
namespace {

namespace hn = hwy::HWY_NAMESPACE;

constexpr std::size_t kMaxPattern = 2048;

// `period` values, repeated as often as is useful for n elements.
class Pattern {
 public:
  Pattern(const float* values, std::size_t period, std::size_t n)
      : values_(values), length_(period) {
    if (period > kMaxPattern / 2 || period >= n) return;
    for (length_ = 0; length_ + period <= kMaxPattern && length_ < n; length_ += period) {
      for (std::size_t i = 0; i < period; ++i) repeated_[length_ + i] = values[i];
    }
    values_ = repeated_;
  }
  Pattern(const Pattern&) = delete;
  Pattern& operator=(const Pattern&) = delete;

  const float* values() const { return values_; }
  std::size_t length() const { return length_; }

 private:
  const float* values_;
  std::size_t length_;
  float repeated_[kMaxPattern];
};

// Calls step(d, i, k) for vectors of elements i that meet the pattern's elements k.
template <class Step>
void for_each_run(std::size_t n, std::size_t length, Step step) {
  for (std::size_t start = 0; start < n; start += length) {
    const std::size_t run = n - start < length ? n - start : length;
    for_each_vector(run, [=](auto d, std::size_t k) { step(d, start + k, k); });
  }
}

void prelu(const float* input, float* output, std::size_t n, const float* slopes,
           std::size_t period) {
  const Pattern pattern(slopes, period, n);
  const float* repeated = pattern.values();
  for_each_run(n, pattern.length(), [=](auto d, std::size_t i, std::size_t k) {
    const auto x = hn::LoadU(d, input + i);
    const auto zero = hn::Zero(d);
    const auto negative = hn::IfThenElse(hn::Gt(x, zero), zero, x);
    const auto positive = hn::IfThenElse(hn::Lt(x, zero), zero, x);
    hn::StoreU(hn::Add(hn::Mul(negative, hn::LoadU(d, repeated + k)), positive), d, output + i);
  });
}

void normalise(const float* input, float* output, std::size_t n, const float* means,
               const float* factors, std::size_t period) {
  const Pattern mean(means, period, n);
  const Pattern factor(factors, period, n);
  const float* m = mean.values();
  const float* f = factor.values();
  for_each_run(n, mean.length(), [=](auto d, std::size_t i, std::size_t k) {
    const auto centred = hn::Sub(hn::LoadU(d, input + i), hn::LoadU(d, m + k));
    hn::StoreU(hn::Mul(centred, hn::LoadU(d, f + k)), d, output + i);
  });
}

void scale(const float* input, float* output, std::size_t n, const float* factors,
           std::size_t period) {
  const Pattern factor(factors, period, n);
  const float* f = factor.values();
  for_each_run(n, factor.length(), [=](auto d, std::size_t i, std::size_t k) {
    hn::StoreU(hn::Mul(hn::LoadU(d, input + i), hn::LoadU(d, f + k)), d, output + i);
  });
}

void scale_and_shift(const float* input, float* output, std::size_t n, const float* factors,
                     const float* shifts, std::size_t period) {
  const Pattern factor(factors, period, n);
  const Pattern shift(shifts, period, n);
  const float* f = factor.values();
  const float* s = shift.values();
  for_each_run(n, factor.length(), [=](auto d, std::size_t i, std::size_t k) {
    const auto scaled = hn::Mul(hn::LoadU(d, input + i), hn::LoadU(d, f + k));
    hn::StoreU(hn::Add(scaled, hn::LoadU(d, s + k)), d, output + i);
  });
}

}  // namespace
}  // namespace ravu::kernels::HWY_NAMESPACE
HWY_AFTER_NAMESPACE();

#if HWY_ONCE
namespace ravu::kernels {

HWY_EXPORT(prelu);
HWY_EXPORT(normalise);
HWY_EXPORT(scale);
HWY_EXPORT(scale_and_shift);

void prelu(const float* input, float* output, std::size_t n, const float* slopes,
           std::size_t period) {
  HWY_DYNAMIC_DISPATCH(prelu)(input, output, n, slopes, period);
}

void normalise(const float* input, float* output, std::size_t n, const float* means,
               const float* factors, std::size_t period) {
  HWY_DYNAMIC_DISPATCH(normalise)(input, output, n, means, factors, period);
}

void scale(const float* input, float* output, std::size_t n, const float* factors,
           std::size_t period) {
  HWY_DYNAMIC_DISPATCH(scale)(input, output, n, factors, period);
}

void scale_and_shift(const float* input, float* output, std::size_t n, const float* factors,
                     const float* shifts, std::size_t period) {
  HWY_DYNAMIC_DISPATCH(scale_and_shift)(input, output, n, factors, shifts, period);
}

}  // namespace ravu::kernels
#endif
