// From floats to 8-bit integers and back. The same bits on every processor: each written operation
// is rounded once, and maxima and integer sums do not depend on their order.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

namespace ravu::fixpoint {

// What is added to signed inputs, so that they are unsigned bytes.
inline constexpr std::int32_t kZeroPoint = 128;

// The finite values of the greatest magnitude, and whether a value is below 0.
struct Extent {
  float magnitude = 0;
  bool signs = false;
};

Extent extent_of(const float* values, std::size_t n);

// How floats become bytes: floor(value * factor + rounding), limited to -127 .. 127, + zero_point.
// A product that is not a number counts as 0.
struct Quantiser {
  float factor;
  float rounding;
  std::int32_t zero_point;
};

void quantise(const float* values, std::size_t n, const Quantiser& to_bytes, std::uint8_t* bytes);

// How floats come back from sums. The arrays repeat along the data: element i takes entry i mod
// their length.
struct Steps {
  std::vector<std::int32_t> offsets;  // taken off each sum
  std::vector<float> steps;           // what the integer 1 stands for
  std::vector<float> bias;            // added; empty for none
};

// Rewrites n 32-bit sums, whose bits `sums` holds, as floats: float(sum - offset) * step + bias.
void dequantise(float* sums, std::size_t n, const Steps& steps);

// sums[i] += more[i] in the same representation as above; i < n.
void add_sums(float* sums, const std::int32_t* more, std::size_t n);

// One output channel's weights as integers of at most `range`, halves away from zero. Gives the
// step: the weight that the integer 1 stands for.
float quantise_weights(const float* weights, std::size_t n, float range, std::int8_t* integers);

}  // namespace ravu::fixpoint
