// One pass over an array for all steps. Short parameter arrays are repeated into longer ones first:
// few channels fill whole registers all the same.
#include "kernels/element_steps.h"

#include <algorithm>

#include "kernels/workers.h"

#undef HWY_TARGET_INCLUDE
#define HWY_TARGET_INCLUDE "kernels/element_steps.cpp"
#include <hwy/foreach_target.h>
#include <hwy/highway.h>

#include "kernels/element_steps-inl.h"

HWY_BEFORE_NAMESPACE();
namespace ravu::kernels::HWY_NAMESPACE {
namespace {

namespace hn = hwy::HWY_NAMESPACE;

// Vectors that a step is applied to at a time.
constexpr std::size_t kVectors = 4;

// `run` elements that begin with the first channel.
void apply_to_run(const ElementSteps& steps, const float* input, float* output, std::size_t run) {
  const hn::ScalableTag<float> d;
  const hn::CappedTag<float, 1> one;
  const std::size_t lanes = hn::Lanes(d);
  std::size_t i = 0;
  for (; i + kVectors * lanes <= run; i += kVectors * lanes) {
    hn::Vec<decltype(d)> x[kVectors];
#pragma GCC unroll 4
    for (std::size_t v = 0; v < kVectors; ++v) x[v] = hn::LoadU(d, input + i + v * lanes);
    apply_steps<Lie::kAlongChannels>(d, steps, i, x);
#pragma GCC unroll 4
    for (std::size_t v = 0; v < kVectors; ++v) hn::StoreU(x[v], d, output + i + v * lanes);
  }
  for (; i + lanes <= run; i += lanes) {
    hn::Vec<decltype(d)> x[1] = {hn::LoadU(d, input + i)};
    apply_steps<Lie::kAlongChannels>(d, steps, i, x);
    hn::StoreU(x[0], d, output + i);
  }
  for (; i < run; ++i) {
    hn::Vec<decltype(one)> x[1] = {hn::LoadU(one, input + i)};
    apply_steps<Lie::kAlongChannels>(one, steps, i, x);
    hn::StoreU(x[0], one, output + i);
  }
}

void apply_to_rows(const ElementSteps& steps, float* row, std::size_t rows, std::size_t width,
                   std::size_t stride) {
  for (std::size_t r = 0; r < rows; ++r, row += stride) apply_to_run(steps, row, row, width);
}

}  // namespace
}  // namespace ravu::kernels::HWY_NAMESPACE
HWY_AFTER_NAMESPACE();

#if HWY_ONCE
namespace ravu::kernels {
namespace {

HWY_EXPORT(apply_to_run);
HWY_EXPORT(apply_to_rows);

constexpr std::size_t kMaxPattern = 512;              // floats of a repeated parameter array
constexpr std::size_t kPiece = std::size_t{1} << 15;  // elements of a task

// `period` values (null: none), repeated to `length`.
const float* repeat(const float* values, std::size_t period, float* to, std::size_t length) {
  if (values == nullptr) return nullptr;
  for (std::size_t i = 0; i < length; i += period) std::copy_n(values, period, to + i);
  return to;
}

// The n elements in runs of a period, or of several with repeated parameters.
void apply_piece(const ElementSteps& steps, std::size_t period, const float* input, float* output,
                 std::size_t n) {
  const auto apply = HWY_DYNAMIC_DISPATCH(apply_to_run);
  float repeated[ElementSteps::kMost][2][kMaxPattern];
  ElementSteps longer = steps;
  std::size_t length = period == 0 ? n : period;
  if (length <= kMaxPattern / 2 && length < n) {
    length = kMaxPattern / period * period;
    float(*to)[2][kMaxPattern] = repeated;
    for (ElementStep& step : longer) {
      step.first = repeat(step.first, period, (*to)[0], length);
      step.second = repeat(step.second, period, (*to)[1], length);
      ++to;
    }
  }
  for (std::size_t i = 0; i < n; i += length) {
    apply(longer, input + i, output + i, std::min(length, n - i));
  }
}

}  // namespace

ElementSteps ElementSteps::from_channel(std::size_t channel) const {
  ElementSteps shifted = *this;
  for (ElementStep& step : shifted) {
    if (step.first != nullptr) step.first += channel;
    if (step.second != nullptr) step.second += channel;
  }
  return shifted;
}

void apply_steps(const ElementSteps& steps, std::size_t period, const float* input, float* output,
                 std::size_t n, Workers& workers) {
  const std::size_t unit = std::max<std::size_t>(period, 1);
  const std::size_t piece = std::max<std::size_t>(kPiece / unit, 1) * unit;
  workers.run((n + piece - 1) / piece, [&](std::size_t index, std::size_t) {
    const std::size_t start = index * piece;
    apply_piece(steps, period, input + start, output + start, std::min(piece, n - start));
  });
}

void apply_steps_to_rows(const ElementSteps& steps, float* first_row, std::size_t rows,
                         std::size_t width, std::size_t stride) {
  if (steps.empty()) return;
  HWY_DYNAMIC_DISPATCH(apply_to_rows)(steps, first_row, rows, width, stride);
}

}  // namespace ravu::kernels
#endif
