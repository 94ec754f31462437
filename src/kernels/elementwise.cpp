// Kernels that treat each element by itself. The same bits on every processor: one rounding per
// written operation, selects instead of minimum and maximum instructions.
#include <cmath>

#include "kernels/kernels.h"

#undef HWY_TARGET_INCLUDE
#define HWY_TARGET_INCLUDE "kernels/elementwise.cpp"
#include <hwy/foreach_target.h>
#include <hwy/highway.h>

#include "kernels/for_each_vector-inl.h"

HWY_BEFORE_NAMESPACE();
namespace ravu::kernels::HWY_NAMESPACE {
namespace {

namespace hn = hwy::HWY_NAMESPACE;

void relu(const float* input, float* output, std::size_t n, float slope) {
  for_each_vector(n, [=](auto d, std::size_t i) {
    const auto x = hn::LoadU(d, input + i);
    const auto scaled = hn::Mul(x, hn::Set(d, slope));
    hn::StoreU(hn::IfThenElse(hn::Gt(scaled, x), scaled, x), d, output + i);
  });
}

void multiply_and_add(const float* input, float* output, std::size_t n, float factor,
                      float addend) {
  for_each_vector(n, [=](auto d, std::size_t i) {
    const auto scaled = hn::Mul(hn::LoadU(d, input + i), hn::Set(d, factor));
    hn::StoreU(hn::Add(scaled, hn::Set(d, addend)), d, output + i);
  });
}

void weighted_sum(const float* const* inputs, const float* coefficients, std::size_t terms,
                  float* output, std::size_t n) {
  for_each_vector(n, [=](auto d, std::size_t i) {
    auto sum = hn::Zero(d);
    for (std::size_t j = 0; j < terms; ++j) {
      sum = hn::Add(sum, hn::Mul(hn::Set(d, coefficients[j]), hn::LoadU(d, inputs[j] + i)));
    }
    hn::StoreU(sum, d, output + i);
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

HWY_EXPORT(relu);
HWY_EXPORT(multiply_and_add);
HWY_EXPORT(weighted_sum);
HWY_EXPORT(add_bias);

void relu(const float* input, float* output, std::size_t n, float slope) {
  HWY_DYNAMIC_DISPATCH(relu)(input, output, n, slope);
}

void multiply_and_add(const float* input, float* output, std::size_t n, float factor,
                      float addend) {
  HWY_DYNAMIC_DISPATCH(multiply_and_add)(input, output, n, factor, addend);
}

void raise_to_power(const float* input, float* output, std::size_t n, float exponent) {
  for (std::size_t i = 0; i < n; ++i) output[i] = std::pow(input[i], exponent);
}

void weighted_sum(const float* const* inputs, const float* coefficients, std::size_t terms,
                  float* output, std::size_t n) {
  HWY_DYNAMIC_DISPATCH(weighted_sum)(inputs, coefficients, terms, output, n);
}

void add_bias(float* first_row, std::size_t rows, std::size_t width, std::size_t stride,
              const float* bias, std::size_t bias_count, std::size_t phase) {
  HWY_DYNAMIC_DISPATCH(add_bias)(first_row, rows, width, stride, bias, bias_count, phase);
}

}  // namespace ravu::kernels
#endif
