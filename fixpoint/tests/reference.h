// The arithmetic of the fixed-point library in plain loops over integers, written from its header.
// Shares no code with the library.
#pragma once

#include <cstdint>
#include <vector>

namespace ravu::fixpoint::test {

// A convolution and one batch of input, in the terms of the interface.
struct ConvCase {
  int batch = 1, height = 1, width = 1, channels = 1;
  int outputs = 1, kernel_h = 1, kernel_w = 1;
  int stride_h = 1, stride_w = 1, dilation_h = 1, dilation_w = 1, pad_h = 0, pad_w = 0;
  std::vector<float> weights, bias, input;  // no bias: none is added

  int rows() const;
  int columns() const;
};

std::vector<float> convolve(const ConvCase& c, float weight_range = 64, float input_range = 127,
                            float rounding = 0.5F);

// The same for rows of weights: one output each.
std::vector<float> fully_connect(int batch, int features, int outputs,
                                 const std::vector<float>& weights, const std::vector<float>& bias,
                                 const std::vector<float>& input);

// n values from a seeded generator, between these bounds.
std::vector<float> random_values(std::size_t n, unsigned seed, float least = -1,
                                 float greatest = 1);

// Fills a case's weights and input, and its bias if wanted.
void fill(ConvCase& c, unsigned seed, bool with_bias, float least_input = -1);

}  // namespace ravu::fixpoint::test
