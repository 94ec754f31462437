// Convolution and fully connected layers in double precision, term by term.
#include <algorithm>
#include <cmath>

#include "support/reference.h"

namespace ravu::test::reference {
namespace {

struct Term {
  double value = 0;
  double magnitude = 0;
  void add(double a, double b) {
    value += a * b;
    magnitude += std::abs(a * b);
  }
};

// The image's value, zero outside it.
double pixel(const Conv& c, const std::vector<float>& input, int n, int y, int x, int channel) {
  if (y < 0 || y >= c.height || x < 0 || x >= c.width) return 0;
  return input[static_cast<std::size_t>(((n * c.height + y) * c.width + x) * c.channels + channel)];
}

Term patch_sum(const Conv& c, const std::vector<float>& input, const std::vector<float>& weights,
               int n, int oy, int ox, int group, int m) {
  const int group_channels = c.channels / c.groups;
  Term sum;
  std::size_t k = static_cast<std::size_t>(m * c.kernel * c.kernel * group_channels);
  for (int ky = 0; ky < c.kernel; ++ky) {
    for (int kx = 0; kx < c.kernel; ++kx) {
      const int y = c.dilation - 1 + c.stride * oy + ky - c.pad;
      const int x = c.dilation - 1 + c.stride * ox + kx - c.pad;
      for (int i = 0; i < group_channels; ++i, ++k) {
        sum.add(pixel(c, input, n, y, x, group * group_channels + i), weights[k]);
      }
    }
  }
  return sum;
}

}  // namespace

int conv_record_size(int input, const Conv& c) {
  return (2 * c.pad - (c.dilation - 1) * (c.stride + 1) - c.kernel + input) / c.stride + 1;
}

int conv_patches(int input, const Conv& c) {
  const int room = input + 2 * c.pad - (c.dilation - 1) * (c.stride + 1) - c.kernel;
  return static_cast<int>(static_cast<float>(room) / static_cast<float>(c.stride) + 1.0F);
}

Sums convolve(const Conv& c, const std::vector<float>& input,
              const std::vector<std::vector<float>>& weights,
              const std::vector<std::vector<float>>& bias) {
  Sums sums;
  const int rows = conv_patches(c.height, c);
  const int columns = conv_patches(c.width, c);
  for (int p = 0; p < c.batch * rows * columns; ++p) {
    const int n = p / (rows * columns);
    const int oy = p % (rows * columns) / columns;
    for (int channel = 0; channel < c.groups * c.kernels; ++channel) {
      const int g = channel / c.kernels;
      const int m = channel % c.kernels;
      Term sum = patch_sum(c, input, weights[g], n, oy, p % columns, g, m);
      if (!bias[g].empty()) sum.add(bias[g][(p * c.kernels + m) % bias[g].size()], 1);
      sums.values.push_back(sum.value);
      sums.magnitudes.push_back(sum.magnitude);
    }
  }
  return sums;
}

Sums fully_connect(int batch, int features, int outputs, const std::vector<float>& input,
                   const std::vector<float>& weights, const std::vector<float>& bias) {
  Sums sums;
  for (int i = 0; i < batch * outputs; ++i) {
    Term sum;
    for (int k = 0; k < features; ++k) {
      sum.add(weights[static_cast<std::size_t>(k * outputs + i % outputs)],
              input[static_cast<std::size_t>(i / outputs * features + k)]);
    }
    if (!bias.empty()) sum.add(bias[static_cast<std::size_t>(i) % bias.size()], 1);
    sums.values.push_back(sum.value);
    sums.magnitudes.push_back(sum.magnitude);
  }
  return sums;
}

bool close_to(const std::vector<float>& values, const Sums& sums, std::size_t* where) {
  double squares = 0;
  for (const double value : sums.values) squares += value * value;
  const double rms =
      std::sqrt(squares / static_cast<double>(std::max<std::size_t>(sums.values.size(), 1)));
  for (*where = 0; *where < sums.values.size(); ++*where) {
    const double bound = std::max(2e-5 * rms, 2e-6 * sums.magnitudes[*where]);
    if (*where >= values.size() || !(std::abs(values[*where] - sums.values[*where]) <= bound)) {
      return false;
    }
  }
  return values.size() == sums.values.size();
}

}  // namespace ravu::test::reference
