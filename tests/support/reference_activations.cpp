// Rectifiers, power, weighted sums and softmax, element by element in single precision.
#include <cmath>

#include "support/reference.h"

namespace ravu::test::reference {

std::vector<float> relu(const std::vector<float>& input, float slope) {
  std::vector<float> output;
  for (const float x : input) output.push_back(x * slope > x ? x * slope : x);
  return output;
}

std::vector<float> prelu(const std::vector<float>& input, const std::vector<float>& slopes,
                         std::size_t channels) {
  std::vector<float> output;
  std::size_t c = 0;
  for (const float x : input) {
    const float low = x > 0 ? 0 : x;
    const float high = x < 0 ? 0 : x;
    const float scaled = low * slopes[c];
    output.push_back(scaled + high);
    c = c + 1 == channels ? 0 : c + 1;
  }
  return output;
}

std::vector<float> power(std::vector<float> input, std::vector<float> output, bool shared,
                         float scale, float shift, float exponent) {
  const auto step = [&](auto function) {
    for (std::size_t i = 0; i < output.size(); ++i) {
      output[i] = function(input[i]);
      if (shared) input[i] = output[i];
    }
  };
  if (scale != 1.0F) step([=](float x) { return x * scale; });
  if (shift != 0.0F) step([=](float x) { return x + shift; });
  if (exponent != 1.0F) step([=](float x) { return powf(x, exponent); });
  return output;
}

std::vector<float> weighted_sum(const std::vector<std::vector<float>>& inputs,
                                const std::vector<float>& coefficients, std::size_t n) {
  std::vector<float> output(n, 0.0F);
  for (std::size_t j = 0; j < inputs.size(); ++j) {
    for (std::size_t i = 0; i < n; ++i) {
      const float term = coefficients[j] * inputs[j][i];
      output[i] = output[i] + term;
    }
  }
  return output;
}

std::vector<float> softmax(const std::vector<float>& input, std::size_t length) {
  std::vector<float> output;
  for (std::size_t start = 0; start < input.size(); start += length) {
    const std::size_t end = start + length < input.size() ? start + length : input.size();
    float greatest = -3.4028235e38F;
    for (std::size_t i = start; i < end; ++i) greatest = std::fmax(greatest, input[i]);
    float sum = 0;
    for (std::size_t i = start; i < end; ++i) sum += expf(input[i] - greatest);
    const float reciprocal = static_cast<float>(1.0 / static_cast<double>(sum));
    for (std::size_t i = start; i < end; ++i) {
      output.push_back(expf(input[i] - greatest) * reciprocal);
    }
  }
  return output;
}

}  // namespace ravu::test::reference
