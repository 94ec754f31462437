// Layers that only move values, element by element from coordinates.
#include "support/reference.h"

namespace ravu::test::reference {

std::vector<float> concat(const std::vector<std::vector<float>>& inputs,
                          const std::vector<std::size_t>& channels, std::size_t pixels) {
  std::vector<float> output;
  for (std::size_t p = 0; p < pixels; ++p) {
    for (std::size_t j = 0; j < inputs.size(); ++j) {
      for (std::size_t c = 0; c < channels[j]; ++c) {
        output.push_back(inputs[j][p * channels[j] + c]);
      }
    }
  }
  return output;
}

std::vector<float> permute(const Image& image, const std::vector<std::size_t>& order,
                           const std::vector<float>& input) {
  const std::size_t sizes[] = {image.height, image.width, image.channels};
  std::vector<float> output;
  for (std::size_t n = 0; n < image.batch; ++n) {
    std::size_t at[3];  // the input's coordinates
    for (at[order[0]] = 0; at[order[0]] < sizes[order[0]]; ++at[order[0]]) {
      for (at[order[1]] = 0; at[order[1]] < sizes[order[1]]; ++at[order[1]]) {
        for (at[order[2]] = 0; at[order[2]] < sizes[order[2]]; ++at[order[2]]) {
          const std::size_t pixel = (n * image.height + at[0]) * image.width + at[1];
          output.push_back(input[pixel * image.channels + at[2]]);
        }
      }
    }
  }
  return output;
}

std::vector<float> crop(const Image& image, std::size_t offset, std::size_t size,
                        const std::vector<float>& input) {
  std::vector<float> output;
  for (std::size_t n = 0; n < image.batch; ++n) {
    for (std::size_t y = offset; y < offset + size; ++y) {
      for (std::size_t x = offset; x < offset + size; ++x) {
        for (std::size_t c = 0; c < image.channels; ++c) {
          const std::size_t pixel = (n * image.height + y) * image.width + x;
          output.push_back(input[pixel * image.channels + c]);
        }
      }
    }
  }
  return output;
}

Sizes flattened(const Sizes& input) {
  return {input[0], 1, 1, input[1] * input[2] * input[3]};
}

Sizes reshaped(const Sizes& input, const Sizes& wanted, int inferred) {
  Sizes output = input;
  long replaced = 1;
  for (std::size_t i = 0; i < 4; ++i) {
    if (wanted[i] > 0) output[i] = wanted[i];
    if (wanted[i] > 0) replaced *= wanted[i];
  }
  const long count = input[0] * input[1] * input[2] * input[3];
  if (inferred >= 0) output[static_cast<std::size_t>(inferred)] = count / replaced;
  return output;
}

}  // namespace ravu::test::reference
