// Convolution of each channel with a kernel of its own, vectorised across channels: a strip of
// neighbouring output pixels times a block of channels is held in registers while the taps pass.
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

constexpr std::size_t kStrip = 4;    // output pixels
constexpr std::size_t kVectors = 2;  // of channels

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

// One row of taps after the other for kPixels output pixels that have the same taps.
struct Strip {
  const float* image;
  std::ptrdiff_t first_tap;  // of the first pixel, counted from the image; outside it in padding
  float* output;
  Taps rows, columns;
  const ElementSteps* steps;
};

template <std::size_t kPixels, std::size_t kWide, class D>
void convolve_strip(D d, const ConvSizes& s, const Strip& strip, const float* weights,
                    const float* bias, std::size_t c) {
  const std::size_t lanes = hn::Lanes(d);
  hn::Vec<D> sums[kPixels][kWide];
#pragma GCC unroll 4
  for (std::size_t p = 0; p < kPixels; ++p) {
#pragma GCC unroll 2
    for (std::size_t v = 0; v < kWide; ++v) sums[p][v] = hn::Zero(d);
  }
  for (std::size_t y = strip.rows.first; y < strip.rows.end; ++y) {
    for (std::size_t x = strip.columns.first; x < strip.columns.end; ++x) {
      const float* tap =
          strip.image +
          (strip.first_tap + static_cast<std::ptrdiff_t>((y * s.width + x) * s.channels + c));
      const float* weight = weights + (y * s.kernel_w + x) * s.channels + c;
#pragma GCC unroll 2
      for (std::size_t v = 0; v < kWide; ++v) {
        const auto w = hn::LoadU(d, weight + v * lanes);
#pragma GCC unroll 4
        for (std::size_t p = 0; p < kPixels; ++p) {
          const auto value = hn::LoadU(d, tap + p * s.stride_w * s.channels + v * lanes);
          sums[p][v] = hn::MulAdd(value, w, sums[p][v]);
        }
      }
    }
  }
#pragma GCC unroll 2
  for (std::size_t v = 0; v < kWide; ++v) {
    const auto shift = bias == nullptr ? hn::Zero(d) : hn::LoadU(d, bias + c + v * lanes);
    hn::Vec<D> results[kPixels];
#pragma GCC unroll 4
    for (std::size_t p = 0; p < kPixels; ++p) results[p] = hn::Add(sums[p][v], shift);
    apply_steps<Lie::kSameChannels>(d, *strip.steps, c + v * lanes, results);
#pragma GCC unroll 4
    for (std::size_t p = 0; p < kPixels; ++p) {
      hn::StoreU(results[p], d, strip.output + p * s.out_channels + c + v * lanes);
    }
  }
}

template <std::size_t kPixels>
void convolve_channels(const ConvSizes& s, const Strip& strip, const float* weights,
                       const float* bias) {
  const hn::ScalableTag<float> d;
  const hn::CappedTag<float, 1> one;
  const std::size_t lanes = hn::Lanes(d);
  std::size_t c = 0;
  for (; c + kVectors * lanes <= s.channels; c += kVectors * lanes) {
    convolve_strip<kPixels, kVectors>(d, s, strip, weights, bias, c);
  }
  for (; c + lanes <= s.channels; c += lanes) {
    convolve_strip<kPixels, 1>(d, s, strip, weights, bias, c);
  }
  for (; c < s.channels; ++c) convolve_strip<kPixels, 1>(one, s, strip, weights, bias, c);
}

// Output row `row` of an image.
void depthwise_row(const ConvSizes& s, const float* image, const float* weights, const float* bias,
                   const ElementSteps& steps, std::size_t row, float* output) {
  const std::size_t y = s.shift_h + row * s.stride_h;
  Strip strip{image, 0, output, taps_inside(y, s.pad_h, s.height, s.kernel_h), {0, 0}, &steps};
  const auto width = static_cast<std::ptrdiff_t>(s.width);
  const auto channels = static_cast<std::ptrdiff_t>(s.channels);
  for (std::size_t column = 0; column < s.columns;) {
    const std::size_t x = s.shift_w + column * s.stride_w;
    const std::size_t last = x + (kStrip - 1) * s.stride_w;
    const bool inside = x >= s.pad_w && last + s.kernel_w <= s.pad_w + s.width;
    const std::ptrdiff_t offset =
        (static_cast<std::ptrdiff_t>(y) - static_cast<std::ptrdiff_t>(s.pad_h)) * width +
        static_cast<std::ptrdiff_t>(x) - static_cast<std::ptrdiff_t>(s.pad_w);
    strip.first_tap = offset * channels;
    strip.columns = taps_inside(x, s.pad_w, s.width, s.kernel_w);
    if (inside && column + kStrip <= s.columns) {
      convolve_channels<kStrip>(s, strip, weights, bias);
      column += kStrip;
      strip.output += kStrip * s.out_channels;
    } else {
      convolve_channels<1>(s, strip, weights, bias);
      ++column;
      strip.output += s.out_channels;
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
