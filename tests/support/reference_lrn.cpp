// Local response normalisation, value by value, with the approximate power in plain scalar steps.
#include <cstdint>
#include <cstring>

#include "support/reference.h"

namespace ravu::test::reference {
namespace {

std::uint32_t bits_of(float x) {
  std::uint32_t bits;
  std::memcpy(&bits, &x, sizeof bits);
  return bits;
}

float float_of(std::uint32_t bits) {
  float x;
  std::memcpy(&x, &bits, sizeof x);
  return x;
}

std::int32_t truncate(float x) {
  const bool inside = x >= -2147483648.0F && x < 2147483648.0F;
  return inside ? static_cast<std::int32_t>(x) : INT32_MIN;
}

}  // namespace

float fast_power(float x, float p) {
  const std::uint32_t i = bits_of(x);
  const float m = float_of((i & 0x7FFFFFU) | 0x3F000000U);
  const float log2 = static_cast<float>(i) * 1.1920929e-7F - 124.22552F - 1.4980303F * m -
                     1.72588F / (m + 0.35208872F);
  const float q = p * log2;
  const float c = q < -126.0F ? -126.0F : q;
  const float z = c - static_cast<float>(truncate(c)) + (q < 0 ? 1.0F : 0.0F);
  const float exponent = c + 121.274055F + 27.728024F / (4.8425255F - z) - 1.4901291F * z;
  return float_of(static_cast<std::uint32_t>(truncate(exponent * 8388608.0F)));
}

LrnResult lrn(int channels, int size, float alpha, float beta, float k,
              const std::vector<float>& input) {
  LrnResult result;
  const float a = alpha / static_cast<float>(size);
  const int half = size / 2;
  const int n = static_cast<int>(input.size());
  for (int start = 0; start < n; start += channels) {
    const int present = n - start < channels ? n - start : channels;
    std::vector<float> squares;
    for (int c = 0; c < present; ++c) squares.push_back(input[start + c] * input[start + c] * a);
    float sum = 0;
    for (int c = 0; c < half && c < present; ++c) sum += squares[c];
    for (int c = 0; c < present; ++c) {
      if (c + half < present) sum += squares[c + half];
      result.scale.push_back(sum + k);
      if (c - half >= 0) sum -= squares[c - half];
    }
  }
  for (int i = 0; i < n; ++i) {
    result.output.push_back(fast_power(result.scale[i], -beta) * input[i]);
  }
  return result;
}

}  // namespace ravu::test::reference
