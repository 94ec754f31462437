// Pooling, element by element.
#include <algorithm>

#include "support/reference.h"

namespace ravu::test::reference {
namespace {

struct Window {
  int start, length;
};

Window window(int o, int outputs, int inputs, int kernel, int stride, int pad) {
  const int start = o < pad ? stride * o : stride * (o - pad);
  int length = std::min(inputs - start, kernel);
  if (o < pad) {
    length += o - pad;
  } else if (outputs - o < pad) {
    length += outputs - pad - o;
  }
  return {start, std::max(length, 0)};
}

}  // namespace

int pooled_size(int input, int kernel, int stride, int pad) {
  const int room = 2 * pad - kernel + input;
  int quotient = room / stride;
  if (room > 0 && room % stride != 0) ++quotient;  // division truncates: this rounds up
  return quotient + 1;
}

std::vector<float> pool(const Pooling& p, bool maximum, const std::vector<float>& input) {
  const int out_h = pooled_size(p.height, p.kernel, p.stride, p.pad_h);
  const int out_w = pooled_size(p.width, p.kernel, p.stride, p.pad_w);
  std::vector<float> output;
  for (int n = 0; n < p.batch; ++n) {
    for (int y = 0; y < out_h; ++y) {
      for (int x = 0; x < out_w; ++x) {
        for (int c = 0; c < p.channels; ++c) {
          const Window rows = window(y, out_h, p.height, p.kernel, p.stride, p.pad_h);
          const Window columns = window(x, out_w, p.width, p.kernel, p.stride, p.pad_w);
          float best = -3.4028235e38F;
          float sum = 0.0F;
          for (int i = 0; i < rows.length; ++i) {
            for (int j = 0; j < columns.length; ++j) {
              const int pixel = (n * p.height + rows.start + i) * p.width + columns.start + j;
              const float value = input[static_cast<std::size_t>(pixel * p.channels + c)];
              if (value > best) best = value;
              sum += value;
            }
          }
          output.push_back(maximum ? best : sum / static_cast<float>(p.kernel * p.kernel));
        }
      }
    }
  }
  return output;
}

}  // namespace ravu::test::reference
