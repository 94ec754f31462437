#include "reference.h"

#include <cmath>
#include <random>

namespace ravu::fixpoint::test {
namespace {

float greatest_magnitude(const float* values, std::size_t n) {
  float greatest = 0;
  for (std::size_t i = 0; i < n; ++i) {
    if (std::isfinite(values[i])) greatest = std::fmax(greatest, std::fabs(values[i]));
  }
  return greatest;
}

int limited(float value, int limit) {
  if (std::isnan(value)) return 0;
  if (value > static_cast<float>(limit)) return limit;
  if (value < static_cast<float>(-limit)) return -limit;
  return static_cast<int>(value);
}

int input_integer(float value, float factor, float rounding) {
  const float scaled = value * factor;
  if (std::isnan(scaled)) return 0;
  return limited(std::floor(scaled + rounding), 127);
}

int weight_integer(float value, float factor) {
  return limited(std::round(value * factor), 64);
}

int windows(int size, int pad, int kernel, int stride, int dilation) {
  const int room = size + 2 * pad - (dilation - 1) * (stride + 1) - kernel;
  return room < 0 ? 0 : room / stride + 1;
}

}  // namespace

int ConvCase::rows() const {
  return windows(height, pad_h, kernel_h, stride_h, dilation_h);
}

int ConvCase::columns() const {
  return windows(width, pad_w, kernel_w, stride_w, dilation_w);
}

std::vector<float> convolve(const ConvCase& c, float weight_range, float input_range,
                            float rounding) {
  const auto row_size = static_cast<std::size_t>(c.kernel_h * c.kernel_w * c.channels);
  const auto image_size = static_cast<std::size_t>(c.height * c.width * c.channels);
  std::vector<int> weights;
  std::vector<float> weight_steps;
  for (int o = 0; o < c.outputs; ++o) {
    const float* row = c.weights.data() + static_cast<std::size_t>(o) * row_size;
    const float greatest = greatest_magnitude(row, row_size);
    weight_steps.push_back(greatest / weight_range);
    for (std::size_t k = 0; k < row_size; ++k) {
      weights.push_back(weight_integer(row[k], weight_range / greatest));
    }
  }
  std::vector<float> result;
  for (int n = 0; n < c.batch; ++n) {
    const float* image = c.input.data() + static_cast<std::size_t>(n) * image_size;
    const float greatest = greatest_magnitude(image, image_size);
    const float input_step = greatest / input_range;
    std::vector<int> integers;
    for (std::size_t i = 0; i < image_size; ++i) {
      integers.push_back(input_integer(image[i], input_range / greatest, rounding));
    }
    for (int r = 0; r < c.rows(); ++r) {
      for (int x = 0; x < c.columns(); ++x) {
        const int top = r * c.stride_h + c.dilation_h - 1 - c.pad_h;
        const int left = x * c.stride_w + c.dilation_w - 1 - c.pad_w;
        for (int o = 0; o < c.outputs; ++o) {
          std::int64_t sum = 0;
          const int* w = weights.data() + static_cast<std::size_t>(o) * row_size;
          for (int i = top; i < top + c.kernel_h; ++i) {
            for (int j = left; j < left + c.kernel_w; ++j) {
              const bool inside = i >= 0 && i < c.height && j >= 0 && j < c.width;
              for (int k = 0; k < c.channels; ++k, ++w) {
                if (inside) {
                  sum +=
                      *w * integers[static_cast<std::size_t>((i * c.width + j) * c.channels + k)];
                }
              }
            }
          }
          const auto out = static_cast<std::size_t>(o);
          const float step = input_step * weight_steps[out];
          const float value = static_cast<float>(static_cast<std::int32_t>(sum)) * step;
          result.push_back(c.bias.empty() ? value : value + c.bias[out]);
        }
      }
    }
  }
  return result;
}

std::vector<float> fully_connect(int batch, int features, int outputs,
                                 const std::vector<float>& weights, const std::vector<float>& bias,
                                 const std::vector<float>& input) {
  ConvCase c;
  c.batch = batch;
  c.channels = features;
  c.outputs = outputs;
  c.weights = weights;
  c.bias = bias;
  c.input = input;
  return convolve(c);
}

std::vector<float> random_values(std::size_t n, unsigned seed, float least, float greatest) {
  std::mt19937 random(seed);
  std::vector<float> values(n);
  for (float& value : values) {
    const float part = static_cast<float>(random() >> 8) / 16777216.0F;
    value = least + (greatest - least) * part;
  }
  return values;
}

void fill(ConvCase& c, unsigned seed, bool with_bias, float least_input) {
  const auto row = static_cast<std::size_t>(c.kernel_h * c.kernel_w * c.channels);
  c.weights = random_values(row * static_cast<std::size_t>(c.outputs), seed);
  if (with_bias) c.bias = random_values(static_cast<std::size_t>(c.outputs), seed + 1);
  c.input = random_values(static_cast<std::size_t>(c.batch * c.height * c.width * c.channels),
                          seed + 2, least_input, 3);
}

}  // namespace ravu::fixpoint::test
