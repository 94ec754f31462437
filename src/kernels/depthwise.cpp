// Convolution of each channel with a kernel of its own, vectorised across channels: a strip of
// neighbouring output pixels is held in registers while the taps pass.
#include <algorithm>

#include "kernels/kernels.h"
#include "kernels/workers.h"

#undef HWY_TARGET_INCLUDE
#define HWY_TARGET_INCLUDE "kernels/depthwise.cpp"
#include <hwy/foreach_target.h>
#include <hwy/highway.h>

#include "kernels/element_steps-inl.h"

HWY_BEFORE_NAMESPACE();
namespace ravu::kernels::HWY_NAMESPACE {
namespace {

namespace hn = hwy::HWY_NAMESPACE;

constexpr std::size_t kStrip = 4;      // output pixels
constexpr std::size_t kLongStrip = 8;  // where neighbours share what they read

// The taps [first, end) along one axis that lie inside the image, for the patch that starts at
// `start` in the padded image.
struct Taps {
  std::size_t first, end;
};

Taps taps_inside(std::size_t start, std::size_t pad, std::size_t size, std::size_t kernel) {
  const std::size_t first = std::min(pad > start ? pad - start : 0, kernel);
  const std::size_t border = pad + size;
  return {first, std::clamp(border > start ? border - start : 0, first, kernel)};
}

// Neighbouring output pixels that have the same taps inside the image.
struct Strip {
  const float* image;
  std::ptrdiff_t first_tap;  // of the first pixel, counted from the image; outside it in padding
  float* output;
  Taps rows, columns;
  const ElementSteps* steps;
};

// Adds the bias, runs the steps and writes the channels from c on.
template <class D, class V, std::size_t kPixels>
HWY_INLINE void finish_strip(D d, const ConvSizes& s, const Strip& strip, const float* bias,
                             std::size_t c, V (&sums)[kPixels]) {
  const auto shift = bias == nullptr ? hn::Zero(d) : hn::LoadU(d, bias + c);
#pragma GCC unroll 8
  for (std::size_t p = 0; p < kPixels; ++p) sums[p] = hn::Add(sums[p], shift);
  apply_steps<Lie::kSameChannels>(d, *strip.steps, c, sums);
#pragma GCC unroll 8
  for (std::size_t p = 0; p < kPixels; ++p) {
    hn::StoreU(sums[p], d, strip.output + p * s.out_channels + c);
  }
}

// The first float that row y of taps reads in the image, for the taps from column x on.
const float* first_of(const ConvSizes& s, const Strip& strip, std::size_t y, std::size_t x,
                      std::size_t c) {
  return strip.image +
         (strip.first_tap + static_cast<std::ptrdiff_t>((y * s.width + x) * s.channels + c));
}

// Any kernel and stride: one tap after the other.
struct AnyKernel {
  template <std::size_t kPixels, class D>
  static HWY_INLINE void convolve(D d, const ConvSizes& s, const Strip& strip, const float* weights,
                                  const float* bias, std::size_t c) {
    hn::Vec<D> sums[kPixels];
#pragma GCC unroll 8
    for (std::size_t p = 0; p < kPixels; ++p) sums[p] = hn::Zero(d);
    for (std::size_t y = strip.rows.first; y < strip.rows.end; ++y) {
      for (std::size_t x = strip.columns.first; x < strip.columns.end; ++x) {
        const float* tap = first_of(s, strip, y, x, c);
        const auto weight = hn::LoadU(d, weights + (y * s.kernel_w + x) * s.channels + c);
#pragma GCC unroll 8
        for (std::size_t p = 0; p < kPixels; ++p) {
          const auto value = hn::LoadU(d, tap + p * s.stride_w * s.channels);
          sums[p] = hn::MulAdd(value, weight, sums[p]);
        }
      }
    }
    finish_strip(d, s, strip, bias, c, sums);
  }
};

// Three taps in a row, one pixel apart, all inside the image: neighbours share what they read. The
// sums keep the order that they have above.
struct ThreeTaps {
  template <std::size_t kPixels, class D>
  static HWY_INLINE void convolve(D d, const ConvSizes& s, const Strip& strip, const float* weights,
                                  const float* bias, std::size_t c) {
    hn::Vec<D> sums[kPixels];
#pragma GCC unroll 8
    for (std::size_t p = 0; p < kPixels; ++p) sums[p] = hn::Zero(d);
    for (std::size_t y = strip.rows.first; y < strip.rows.end; ++y) {
      const float* row = first_of(s, strip, y, 0, c);
      const float* weight = weights + y * 3 * s.channels + c;
      const auto left = hn::LoadU(d, weight);
      const auto middle = hn::LoadU(d, weight + s.channels);
      const auto right = hn::LoadU(d, weight + 2 * s.channels);
#pragma GCC unroll 10
      for (std::size_t i = 0; i < kPixels + 2; ++i) {
        const auto value = hn::LoadU(d, row + i * s.channels);
        if (i < kPixels) sums[i] = hn::MulAdd(value, left, sums[i]);
        if (i > 0 && i <= kPixels) sums[i - 1] = hn::MulAdd(value, middle, sums[i - 1]);
        if (i > 1) sums[i - 2] = hn::MulAdd(value, right, sums[i - 2]);
      }
    }
    finish_strip(d, s, strip, bias, c, sums);
  }
};

template <class Kernel, std::size_t kPixels>
void convolve_channels(const ConvSizes& s, Strip& strip, const float* weights, const float* bias) {
  const hn::ScalableTag<float> d;
  const hn::CappedTag<float, 1> one;
  const std::size_t lanes = hn::Lanes(d);
  std::size_t c = 0;
  for (; c + lanes <= s.channels; c += lanes) {
    Kernel::template convolve<kPixels>(d, s, strip, weights, bias, c);
  }
  for (; c < s.channels; ++c) {
    Kernel::template convolve<kPixels>(one, s, strip, weights, bias, c);
  }
  strip.output += kPixels * s.out_channels;
}

// Output row `row` of an image.
void depthwise_row(const ConvSizes& s, const float* image, const float* weights, const float* bias,
                   const ElementSteps& steps, std::size_t row, float* output) {
  const std::size_t y = s.shift_h + row * s.stride_h;
  Strip strip{image, 0, output, taps_inside(y, s.pad_h, s.height, s.kernel_h), {0, 0}, &steps};
  const auto width = static_cast<std::ptrdiff_t>(s.width);
  const auto channels = static_cast<std::ptrdiff_t>(s.channels);
  const bool shares = s.kernel_w == 3 && s.stride_w == 1;
  for (std::size_t column = 0; column < s.columns;) {
    const std::size_t x = s.shift_w + column * s.stride_w;
    // Whether so many neighbours have all their columns inside the image.
    const auto has = [&](std::size_t pixels) {
      return column + pixels <= s.columns && x >= s.pad_w &&
             x + (pixels - 1) * s.stride_w + s.kernel_w <= s.pad_w + s.width;
    };
    const std::ptrdiff_t offset =
        (static_cast<std::ptrdiff_t>(y) - static_cast<std::ptrdiff_t>(s.pad_h)) * width +
        static_cast<std::ptrdiff_t>(x) - static_cast<std::ptrdiff_t>(s.pad_w);
    strip.first_tap = offset * channels;
    strip.columns = taps_inside(x, s.pad_w, s.width, s.kernel_w);
    if (shares && has(kLongStrip)) {
      convolve_channels<ThreeTaps, kLongStrip>(s, strip, weights, bias);
      column += kLongStrip;
    } else if (has(kStrip)) {
      const auto convolve =
          shares ? convolve_channels<ThreeTaps, kStrip> : convolve_channels<AnyKernel, kStrip>;
      convolve(s, strip, weights, bias);
      column += kStrip;
    } else {
      convolve_channels<AnyKernel, 1>(s, strip, weights, bias);
      ++column;
    }
  }
}

}  // namespace
}  // namespace ravu::kernels::HWY_NAMESPACE
HWY_AFTER_NAMESPACE();

#if HWY_ONCE
namespace ravu::kernels {
namespace {

HWY_EXPORT(depthwise_row);

}  // namespace

void convolve_depthwise(const ConvSizes& s, const float* input, const float* weights,
                        const float* bias, const ElementSteps& steps, float* output,
                        Workers& workers) {
  const auto row_function = HWY_DYNAMIC_DISPATCH(depthwise_row);
  workers.run(s.batch * s.rows, [&](std::size_t index, std::size_t) {
    const std::size_t image = index / s.rows;
    const std::size_t row = index % s.rows;
    row_function(s, input + image * s.height * s.width * s.channels, weights, bias, steps, row,
                 output + image * s.out_image + row * s.columns * s.out_channels);
  });
}

}  // namespace ravu::kernels
#endif
