// Batch normalisation and scale, one described step after the other in single precision.
#include "support/reference.h"

namespace ravu::test::reference {

std::vector<float> batch_norm(const std::vector<float>& input, const std::vector<float>& mean,
                              const std::vector<float>& divisor) {
  std::vector<float> output = input;
  const std::size_t channels = divisor.size();
  for (std::size_t i = 0; i < output.size(); ++i)
    output[i] = output[i] + -1.0F * mean[i % channels];
  for (std::size_t i = 0; i < output.size(); ++i) {
    const float reciprocal = 1.0F / divisor[i % channels];
    output[i] = output[i] * reciprocal;
  }
  return output;
}

std::vector<float> scale(const std::vector<float>& input, const std::vector<float>& scales,
                         const std::vector<float>& bias) {
  std::vector<float> output = input;
  for (std::size_t i = 0; i < output.size(); ++i) output[i] = input[i] * scales[i % scales.size()];
  if (bias.empty()) return output;
  for (std::size_t i = 0; i < output.size(); ++i) output[i] = output[i] + bias[i % bias.size()];
  return output;
}

}  // namespace ravu::test::reference
