// L2 normalisation. The squares of a pixel are added in channel order, so several pixels are summed
// side by side; everything else is vectorised across channels.
#include "kernels/kernels.h"

#undef HWY_TARGET_INCLUDE
#define HWY_TARGET_INCLUDE "kernels/normalize.cpp"
#include <hwy/foreach_target.h>
#include <hwy/highway.h>

#include "kernels/for_each_vector-inl.h"

HWY_BEFORE_NAMESPACE();
namespace ravu::kernels::HWY_NAMESPACE {
namespace {

namespace hn = hwy::HWY_NAMESPACE;

void square(const float* input, float* squares, std::size_t n) {
  for_each_vector(n, [=](auto d, std::size_t i) {
    const auto x = hn::LoadU(d, input + i);
    hn::StoreU(hn::Mul(x, x), d, squares + i);
  });
}

void take_roots(float* values, std::size_t n) {
  for_each_vector(n, [=](auto d, std::size_t i) {
    hn::StoreU(hn::Sqrt(hn::LoadU(d, values + i)), d, values + i);
  });
}

// The root of the root ... of each value, `times` times. A value soon stays what it is: 0 at once,
// any other one when it has come next to 1.
void take_roots_repeatedly(float* values, std::size_t n, std::size_t times) {
  for (std::size_t i = 0; i < times; ++i) {
    const hn::CappedTag<float, 1> one;
    bool changed = false;
    for (std::size_t s = 0; s < n; ++s) {
      const float before = values[s];
      hn::StoreU(hn::Sqrt(hn::Set(one, before)), one, values + s);
      changed = changed || before > values[s] || before < values[s];
    }
    if (!changed) return;
  }
}

// Adds the squares of kPixels pixels onto their norms.
template <std::size_t kPixels>
void add_squares(const float* squares, std::size_t channels, float* norms) {
  float sum[kPixels];
  for (std::size_t i = 0; i < kPixels; ++i) sum[i] = norms[i];
  for (std::size_t c = 0; c < channels; ++c) {
    for (std::size_t i = 0; i < kPixels; ++i) sum[i] += squares[i * channels + c];
  }
  for (std::size_t i = 0; i < kPixels; ++i) norms[i] = sum[i];
}

void accumulate(const float* squares, std::size_t pixels, std::size_t channels, float* norms) {
  constexpr std::size_t kPixels = 8;
  std::size_t s = 0;
  for (; s + kPixels <= pixels; s += kPixels) {
    add_squares<kPixels>(squares + s * channels, channels, norms + s);
  }
  for (; s < pixels; ++s) add_squares<1>(squares + s * channels, channels, norms + s);
}

void multiply_by(float* values, std::size_t n, float factor) {
  for_each_vector(n, [=](auto d, std::size_t i) {
    hn::StoreU(hn::Mul(hn::LoadU(d, values + i), hn::Set(d, factor)), d, values + i);
  });
}

void divide(const float* input, std::size_t n, float divisor, float* output) {
  for_each_vector(n, [=](auto d, std::size_t i) {
    hn::StoreU(hn::Div(hn::LoadU(d, input + i), hn::Set(d, divisor)), d, output + i);
  });
}

void apply_scale(const NormalizeSizes& s, const float* scale, bool shared, float* image) {
  if (shared) {
    multiply_by(image, s.image, scale[0]);
    return;
  }
  // Kept: as if the image were stored channel after channel; interleaved channels would be usual.
  for (std::size_t c = 0; c < s.channels; ++c) {
    multiply_by(image + c * s.pixels, s.pixels, scale[c]);
  }
}

void image_norms(const NormalizeSizes& s, const float* squares, float* norms) {
  const hn::CappedTag<float, 1> one;
  for (std::size_t n = 0; n < s.images; ++n, squares += s.image) {
    float sum = 0.0F;
    for (std::size_t i = 0; i < s.image; ++i) sum += squares[i];
    hn::StoreU(hn::Sqrt(hn::Set(one, sum)), one, norms + n);
  }
}

void normalize_pixels(const NormalizeSizes& s, const float* input, const float* squares,
                      float* norms, const float* scale, bool shared, float* output) {
  for (std::size_t n = 0; n < s.images; ++n) {
    // Kept: each image before this one has taken the roots of all later norms as well. The norms
    // are not cleared here; usual would be to start from 0.
    take_roots_repeatedly(norms, s.pixels, n);
    accumulate(squares, s.pixels, s.channels, norms);
    take_roots(norms, s.pixels);
    for (std::size_t p = 0; p < s.pixels; ++p) {
      divide(input + p * s.channels, s.channels, norms[p], output + p * s.channels);
    }
    apply_scale(s, scale, shared, output);
    input += s.image;
    squares += s.image;
    norms += s.pixels;
    output += s.image;
  }
}

}  // namespace
}  // namespace ravu::kernels::HWY_NAMESPACE
HWY_AFTER_NAMESPACE();

#if HWY_ONCE
namespace ravu::kernels {

HWY_EXPORT(square);
HWY_EXPORT(image_norms);
HWY_EXPORT(normalize_pixels);

void square(const float* input, float* squares, std::size_t n) {
  HWY_DYNAMIC_DISPATCH(square)(input, squares, n);
}

void image_norms(const NormalizeSizes& sizes, const float* squares, float* norms) {
  HWY_DYNAMIC_DISPATCH(image_norms)(sizes, squares, norms);
}

void normalize_pixels(const NormalizeSizes& sizes, const float* input, const float* squares,
                      float* norms, const float* scale, bool shared, float* output) {
  HWY_DYNAMIC_DISPATCH(normalize_pixels)
  (sizes, input, squares, norms, scale, shared, output);
}

}  // namespace ravu::kernels
#endif
