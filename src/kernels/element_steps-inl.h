// The steps on vectors, compiled once per instruction set with the source that includes it; hence
// the guard that Highway toggles.
#if defined(RAVU_KERNELS_ELEMENT_STEPS_INL_H_) == defined(HWY_TARGET_TOGGLE)
#ifdef RAVU_KERNELS_ELEMENT_STEPS_INL_H_
#undef RAVU_KERNELS_ELEMENT_STEPS_INL_H_
#else
#define RAVU_KERNELS_ELEMENT_STEPS_INL_H_
#endif

#include <hwy/highway.h>

#include "kernels/element_steps.h"

HWY_BEFORE_NAMESPACE();
namespace ravu::kernels::HWY_NAMESPACE {
namespace {

// Where the vectors of a call stand: one after another along the channels, or all on the same
// channels of several pixels.
enum class Lie { kAlongChannels, kSameChannels };

// Selects instead of minimum and maximum instructions: not a number is treated alike everywhere.
template <Lie kLie, class D, class V, std::size_t kCount>
HWY_INLINE void apply_step(D d, const ElementStep& step, std::size_t channel, V (&x)[kCount]) {
  namespace hn = hwy::HWY_NAMESPACE;
  const std::size_t next = kLie == Lie::kAlongChannels ? hn::Lanes(d) : 0;
  const auto first = [&](std::size_t i)
                         HWY_ATTR { return hn::LoadU(d, step.first + channel + i * next); };
  const auto second = [&](std::size_t i)
                          HWY_ATTR { return hn::LoadU(d, step.second + channel + i * next); };
  switch (step.kind) {
    case ElementStep::Kind::kRelu:
#pragma GCC unroll 8
      for (std::size_t i = 0; i < kCount; ++i) {
        const auto scaled = hn::Mul(x[i], hn::Set(d, step.slope));
        x[i] = hn::IfThenElse(hn::Gt(scaled, x[i]), scaled, x[i]);
      }
      break;
    case ElementStep::Kind::kPRelu:
#pragma GCC unroll 8
      for (std::size_t i = 0; i < kCount; ++i) {
        const auto zero = hn::Zero(d);
        const auto negative = hn::IfThenElse(hn::Gt(x[i], zero), zero, x[i]);
        const auto positive = hn::IfThenElse(hn::Lt(x[i], zero), zero, x[i]);
        x[i] = hn::Add(hn::Mul(negative, first(i)), positive);
      }
      break;
    case ElementStep::Kind::kNormalise:
#pragma GCC unroll 8
      for (std::size_t i = 0; i < kCount; ++i) {
        const auto centred = hn::Sub(x[i], first(i));
        x[i] = hn::Mul(centred, second(i));
      }
      break;
    case ElementStep::Kind::kScale:
#pragma GCC unroll 8
      for (std::size_t i = 0; i < kCount; ++i) {
        x[i] = hn::Mul(x[i], first(i));
      }
      break;
    case ElementStep::Kind::kScaleAndShift:
#pragma GCC unroll 8
      for (std::size_t i = 0; i < kCount; ++i) {
        const auto scaled = hn::Mul(x[i], first(i));
        x[i] = hn::Add(scaled, second(i));
      }
      break;
  }
}

template <Lie kLie, class D, class V, std::size_t kCount>
HWY_INLINE void apply_steps(D d, const ElementSteps& steps, std::size_t channel, V (&x)[kCount]) {
  for (const ElementStep& step : steps) apply_step<kLie>(d, step, channel, x);
}

}  // namespace
}  // namespace ravu::kernels::HWY_NAMESPACE
HWY_AFTER_NAMESPACE();

#endif
