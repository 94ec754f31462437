// Rectifier and softmax, element by element in single precision.
#include <cmath>

#include "support/reference.h"

namespace ravu::test::reference {

std::vector<float> relu(const std::vector<float>& input, float slope) {
  std::vector<float> output;
  for (const float x : input) output.push_back(x * slope > x ? x * slope : x);
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
