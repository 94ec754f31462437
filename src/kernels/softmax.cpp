// Softmax over runs. The sum keeps its order; the exponential is the C library's.
#include <algorithm>
#include <cmath>

#include "kernels/kernels.h"

namespace ravu::kernels {

void softmax(const float* input, float* output, std::size_t n, std::size_t length) {
  for (std::size_t start = 0; start < n; start += length) {
    const std::size_t run = std::min(length, n - start);
    const float* x = input + start;
    float* y = output + start;
    float greatest = -3.4028235e38F;
    for (std::size_t i = 0; i < run; ++i) greatest = x[i] > greatest ? x[i] : greatest;
    float sum = 0.0F;
    for (std::size_t i = 0; i < run; ++i) {
      y[i] = std::exp(x[i] - greatest);
      sum += y[i];
    }
    // Kept: a multiplication by the rounded reciprocal, not a division.
    const auto reciprocal = static_cast<float>(1.0 / static_cast<double>(sum));
    for (std::size_t i = 0; i < run; ++i) y[i] *= reciprocal;
  }
}

}  // namespace ravu::kernels
