// Kernels that treat each element by itself. The same bits on every processor: one rounding per
// written operation, selects instead of minimum and maximum instructions.
#include <algorithm>
#include <cmath>

#include "kernels/kernels.h"
#include "kernels/workers.h"

#undef HWY_TARGET_INCLUDE
#define HWY_TARGET_INCLUDE "kernels/elementwise.cpp"
#include <hwy/foreach_target.h>
#include <hwy/highway.h>

#include "kernels/element_steps-inl.h"
#include "kernels/for_each_vector-inl.h"

HWY_BEFORE_NAMESPACE();
namespace ravu::kernels::HWY_NAMESPACE {
namespace {

namespace hn = hwy::HWY_NAMESPACE;

void multiply_and_add(const float* input, float* output, std::size_t n, float factor,
                      float addend) {
  for_each_vector(n, [=](auto d, std::size_t i) {
    const auto scaled = hn::Mul(hn::LoadU(d, input + i), hn::Set(d, factor));
    hn::StoreU(hn::Add(scaled, hn::Set(d, addend)), d, output + i);
  });
}

// Elements [start, start + n).
void sum_piece(const float* const* inputs, const float* coefficients, std::size_t terms,
               const ElementSteps& steps, float* output, std::size_t start, std::size_t n) {
  for_each_vector(n, [=, &steps](auto d, std::size_t i) HWY_ATTR {
    hn::Vec<decltype(d)> sum[1] = {hn::Zero(d)};
    for (std::size_t j = 0; j < terms; ++j) {
      const auto term = hn::LoadU(d, inputs[j] + start + i);
      sum[0] = hn::Add(sum[0], hn::Mul(hn::Set(d, coefficients[j]), term));
    }
    apply_steps<Lie::kSameChannels>(d, steps, 0, sum);
    hn::StoreU(sum[0], d, output + start + i);
  });
}

void add_vector(float* row, std::size_t n, const float* bias) {
  for_each_vector(n, [=](auto d, std::size_t i) {
    hn::StoreU(hn::Add(hn::LoadU(d, row + i), hn::LoadU(d, bias + i)), d, row + i);
  });
}

void add_bias(float* row, std::size_t rows, std::size_t width, std::size_t stride,
              const float* bias, std::size_t bias_count, std::size_t phase) {
  for (std::size_t r = 0; r < rows; ++r, row += stride) {
    for (std::size_t i = 0; i < width;) {
      const std::size_t left = width - i;
      const std::size_t run = bias_count - phase < left ? bias_count - phase : left;
      add_vector(row + i, run, bias + phase);
      i += run;
      phase = phase + run == bias_count ? 0 : phase + run;
    }
  }
}

}  // namespace
}  // namespace ravu::kernels::HWY_NAMESPACE
HWY_AFTER_NAMESPACE();

#if HWY_ONCE
namespace ravu::kernels {

HWY_EXPORT(multiply_and_add);
HWY_EXPORT(sum_piece);
HWY_EXPORT(add_bias);

void multiply_and_add(const float* input, float* output, std::size_t n, float factor,
                      float addend) {
  HWY_DYNAMIC_DISPATCH(multiply_and_add)(input, output, n, factor, addend);
}

void raise_to_power(const float* input, float* output, std::size_t n, float exponent) {
  for (std::size_t i = 0; i < n; ++i) output[i] = std::pow(input[i], exponent);
}

void weighted_sum(const float* const* inputs, const float* coefficients, std::size_t terms,
                  const ElementSteps& steps, float* output, std::size_t n, Workers& workers) {
  constexpr std::size_t kPiece = std::size_t{1} << 15;  // elements of a task
  const auto sum_elements = HWY_DYNAMIC_DISPATCH(sum_piece);
  workers.run((n + kPiece - 1) / kPiece, [&](std::size_t index, std::size_t) {
    const std::size_t start = index * kPiece;
    sum_elements(inputs, coefficients, terms, steps, output, start, std::min(kPiece, n - start));
  });
}

void add_bias(float* first_row, std::size_t rows, std::size_t width, std::size_t stride,
              const float* bias, std::size_t bias_count, std::size_t phase) {
  HWY_DYNAMIC_DISPATCH(add_bias)(first_row, rows, width, stride, bias, bias_count, phase);
}

}  // namespace ravu::kernels
#endif
