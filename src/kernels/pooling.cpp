// Pooling, vectorised across channels: one output pixel at a time, a vector of channels held in a
// register while the window is walked, so that each channel's sum keeps its order.
#include <algorithm>
#include <limits>

#include "kernels/kernels.h"
#include "kernels/workers.h"

#undef HWY_TARGET_INCLUDE
#define HWY_TARGET_INCLUDE "kernels/pooling.cpp"
#include <hwy/foreach_target.h>
#include <hwy/highway.h>

HWY_BEFORE_NAMESPACE();
namespace ravu::kernels::HWY_NAMESPACE {
namespace {

namespace hn = hwy::HWY_NAMESPACE;

// The input pixels below one output pixel.
struct Window {
  const float* first;
  std::size_t rows, columns;
  std::size_t row_stride;  // floats from one input row to the next
};

struct Maximum {
  static constexpr float kStart = -3.4028235e38F;
  template <class V>
  static V combine(V best, V x) {
    return hn::IfThenElse(hn::Gt(x, best), x, best);
  }
};

struct Sum {
  static constexpr float kStart = 0.0F;
  template <class V>
  static V combine(V sum, V x) {
    return hn::Add(sum, x);
  }
};

template <class Rule, class D>
void pool_channels(D d, const Window& window, std::size_t channels, std::size_t c, float area,
                   float* output) {
  auto value = hn::Set(d, Rule::kStart);
  for (std::size_t y = 0; y < window.rows; ++y) {
    const float* x = window.first + y * window.row_stride + c;
    for (std::size_t i = 0; i < window.columns; ++i, x += channels) {
      value = Rule::combine(value, hn::LoadU(d, x));
    }
  }
  hn::StoreU(area == 1.0F ? value : hn::Div(value, hn::Set(d, area)), d, output + c);
}

template <class Rule>
void pool_pixel(const Window& window, std::size_t channels, float area, float* output) {
  const hn::ScalableTag<float> d;
  const hn::CappedTag<float, 1> one;
  std::size_t c = 0;
  for (; c + hn::Lanes(d) <= channels; c += hn::Lanes(d)) {
    pool_channels<Rule>(d, window, channels, c, area, output);
  }
  for (; c < channels; ++c) pool_channels<Rule>(one, window, channels, c, area, output);
}

// Where the window of output index o starts along one axis, and how many input elements it holds.
struct Span {
  std::size_t start, length;
};

// Kept: near the border the window is shortened instead of being shifted into the padding, so the
// first windows all start at 0.
Span span_of(std::size_t o, std::size_t outputs, std::size_t inputs, std::size_t kernel,
             std::size_t stride, std::size_t pad) {
  const std::size_t start = stride * (o < pad ? o : o - pad);
  if (start >= inputs) return {0, 0};
  std::size_t cut = 0;
  if (o < pad) {
    cut = pad - o;
  } else if (outputs - o < pad) {
    cut = pad - (outputs - o);
  }
  const std::size_t length = inputs - start < kernel ? inputs - start : kernel;
  return {start, length > cut ? length - cut : 0};
}

// Output row y of one image.
template <class Rule>
void pool_row(const PoolingSizes& s, const float* image, std::size_t y, float area, float* output) {
  const std::size_t row_stride = s.width * s.channels;
  const Span rows = span_of(y, s.out_height, s.height, s.kernel_h, s.stride_h, s.pad_h);
  for (std::size_t x = 0; x < s.out_width; ++x, output += s.channels) {
    const Span columns = span_of(x, s.out_width, s.width, s.kernel_w, s.stride_w, s.pad_w);
    const Window window{image + rows.start * row_stride + columns.start * s.channels, rows.length,
                        columns.length, row_stride};
    pool_pixel<Rule>(window, s.channels, area, output);
  }
}

void max_row(const PoolingSizes& sizes, const float* image, std::size_t y, float* output) {
  pool_row<Maximum>(sizes, image, y, 1.0F, output);
}

// Kept: the divisor is the full window area, whatever the shortened window holds.
void average_row(const PoolingSizes& sizes, const float* image, std::size_t y, float* output) {
  pool_row<Sum>(sizes, image, y, static_cast<float>(sizes.kernel_h * sizes.kernel_w), output);
}

}  // namespace
}  // namespace ravu::kernels::HWY_NAMESPACE
HWY_AFTER_NAMESPACE();

#if HWY_ONCE
namespace ravu::kernels {
namespace {

HWY_EXPORT(max_row);
HWY_EXPORT(average_row);

constexpr std::size_t kTaskFloats = std::size_t{1} << 15;  // of the input, about

using PoolRow = void (*)(const PoolingSizes& sizes, const float* image, std::size_t y,
                         float* output);

void pool(const PoolingSizes& s, const float* input, float* output, PoolRow pool_row,
          Workers& workers) {
  const std::size_t rows = s.batch * s.out_height;
  const std::size_t out_row = s.out_width * s.channels;
  if (out_row == 0) return;  // there may be any number of such rows
  const std::size_t read = std::min(s.kernel_h, s.height) * s.width * s.channels;
  const std::size_t task_rows = std::max<std::size_t>(kTaskFloats / (read + 1), 1);
  workers.run((rows + task_rows - 1) / task_rows, [&](std::size_t task, std::size_t) {
    const std::size_t end = std::min(rows, (task + 1) * task_rows);
    for (std::size_t row = task * task_rows; row < end; ++row) {
      const float* image = input + row / s.out_height * s.height * s.width * s.channels;
      pool_row(s, image, row % s.out_height, output + row * out_row);
    }
  });
}

}  // namespace

void max_pooling(const PoolingSizes& sizes, const float* input, float* output, Workers& workers) {
  pool(sizes, input, output, HWY_DYNAMIC_DISPATCH(max_row), workers);
}

void average_pooling(const PoolingSizes& sizes, const float* input, float* output,
                     Workers& workers) {
  pool(sizes, input, output, HWY_DYNAMIC_DISPATCH(average_row), workers);
}

}  // namespace ravu::kernels
#endif
