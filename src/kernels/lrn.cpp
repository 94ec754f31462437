// Local response normalisation in blocks of pixels. The running sum of one pixel is a chain of
// additions in a fixed order, so several pixels are summed side by side; the power is vectorised
// across elements.
#include <algorithm>

#include "kernels/kernels.h"
#include "kernels/workers.h"

#undef HWY_TARGET_INCLUDE
#define HWY_TARGET_INCLUDE "kernels/lrn.cpp"
#include <hwy/foreach_target.h>
#include <hwy/highway.h>

#include "kernels/for_each_vector-inl.h"

HWY_BEFORE_NAMESPACE();
namespace ravu::kernels::HWY_NAMESPACE {
namespace {

namespace hn = hwy::HWY_NAMESPACE;

// The vector form of to_int32: targets disagree about conversions that are out of range.
template <class D, class V>
auto to_int32(D d, V x) {
  const hn::RebindToSigned<D> di;
  const auto inside =
      hn::And(hn::Ge(x, hn::Set(d, -2147483648.0F)), hn::Lt(x, hn::Set(d, 2147483648.0F)));
  const auto whole = hn::ConvertTo(di, hn::IfThenElseZero(inside, x));
  return hn::IfThenElse(hn::RebindMask(di, inside), whole, hn::Set(di, INT32_MIN));
}

// The float nearest to an unsigned integer. Both halves are exact, so the sum is rounded once.
template <class D, class V>
auto to_float(D d, V bits) {
  const hn::RebindToSigned<D> di;
  const hn::RebindToUnsigned<D> du;
  const auto high = hn::ConvertTo(d, hn::BitCast(di, hn::ShiftRight<16>(bits)));
  const auto low = hn::ConvertTo(d, hn::BitCast(di, hn::And(bits, hn::Set(du, 0xFFFFU))));
  return hn::Add(hn::Mul(high, hn::Set(d, 65536.0F)), low);
}

// Kept: an approximation of log2 from the bits of x, good to about four digits; an exact logarithm
// would give other outputs.
template <class D, class V>
auto fast_log2(D d, V x) {
  const hn::RebindToUnsigned<D> du;
  const auto bits = hn::BitCast(du, x);
  const auto fraction = hn::And(bits, hn::Set(du, 0x7FFFFFU));
  const auto m = hn::BitCast(d, hn::Or(fraction, hn::Set(du, 0x3F000000U)));
  const auto whole =
      hn::Sub(hn::Mul(to_float(d, bits), hn::Set(d, 1.1920929e-7F)), hn::Set(d, 124.22552F));
  const auto linear = hn::Sub(whole, hn::Mul(hn::Set(d, 1.4980303F), m));
  return hn::Sub(linear, hn::Div(hn::Set(d, 1.72588F), hn::Add(m, hn::Set(d, 0.35208872F))));
}

// Kept: 2^q by putting an approximation together as the bits of a float. Beyond 2^128 these are no
// longer the bits of a large number; exact powers would be infinite there.
template <class D, class V>
auto fast_exp2(D d, V q) {
  const auto least = hn::Set(d, -126.0F);
  const auto c = hn::IfThenElse(hn::Lt(q, least), least, q);
  const auto step = hn::IfThenElseZero(hn::Lt(q, hn::Zero(d)), hn::Set(d, 1.0F));
  const auto z = hn::Add(hn::Sub(c, hn::ConvertTo(d, to_int32(d, c))), step);
  const auto curve = hn::Div(hn::Set(d, 27.728024F), hn::Sub(hn::Set(d, 4.8425255F), z));
  const auto exponent = hn::Sub(hn::Add(hn::Add(c, hn::Set(d, 121.274055F)), curve),
                                hn::Mul(hn::Set(d, 1.4901291F), z));
  return hn::BitCast(d, to_int32(d, hn::Mul(exponent, hn::Set(d, 8388608.0F))));
}

void squares_of(const float* input, float* squares, std::size_t n, float factor) {
  for_each_vector(n, [=](auto d, std::size_t i) {
    const auto x = hn::LoadU(d, input + i);
    hn::StoreU(hn::Mul(hn::Mul(x, x), hn::Set(d, factor)), d, squares + i);
  });
}

void apply_power(const float* scale, const float* input, float* output, std::size_t n,
                 float power) {
  for_each_vector(n, [=](auto d, std::size_t i) {
    const auto q = hn::Mul(hn::Set(d, power), fast_log2(d, hn::LoadU(d, scale + i)));
    hn::StoreU(hn::Mul(fast_exp2(d, q), hn::LoadU(d, input + i)), d, output + i);
  });
}

// The denominators of kPixels pixels of `channels` channels each. Channel c sums the squares of the
// channels from c - half to c + half as far as they exist.
template <std::size_t kPixels>
void denominators(const Lrn& p, std::size_t channels, const float* squares, float* scale) {
  float sum[kPixels] = {};
  const auto each_pixel = [channels](auto step) {
    for (std::size_t i = 0; i < kPixels; ++i) step(i, i * channels);
  };
  for (std::size_t c = 0; c < channels && c < p.half; ++c) {
    each_pixel([&](std::size_t i, std::size_t pixel) { sum[i] += squares[pixel + c]; });
  }
  for (std::size_t c = 0; c < channels; ++c) {
    if (p.half < channels - c) {
      const float* entering = squares + c + p.half;
      each_pixel([&](std::size_t i, std::size_t pixel) { sum[i] += entering[pixel]; });
    }
    each_pixel([&](std::size_t i, std::size_t pixel) { scale[pixel + c] = sum[i] + p.k; });
    if (c >= p.half) {
      const float* leaving = squares + c - p.half;
      each_pixel([&](std::size_t i, std::size_t pixel) { sum[i] -= leaving[pixel]; });
    }
  }
}

// n values that begin with a pixel.
void lrn_piece(const Lrn& p, const float* input, float* scale, float* output, std::size_t n,
               float* scratch) {
  const std::size_t block = lrn_scratch_floats(n, p.channels);
  for (std::size_t start = 0; start < n;) {
    const std::size_t left = n - start;
    const bool whole = block > p.channels && left >= block;
    const std::size_t run = whole ? block : (left < p.channels ? left : p.channels);
    squares_of(input + start, scratch, run, p.factor);
    if (whole) {
      denominators<kLrnBlockPixels>(p, p.channels, scratch, scale + start);
    } else {
      denominators<1>(p, run, scratch, scale + start);
    }
    apply_power(scale + start, input + start, output + start, run, p.power);
    start += run;
  }
}

}  // namespace
}  // namespace ravu::kernels::HWY_NAMESPACE
HWY_AFTER_NAMESPACE();

#if HWY_ONCE
namespace ravu::kernels {
namespace {

HWY_EXPORT(lrn_piece);

constexpr std::size_t kTaskFloats = std::size_t{1} << 14;  // about

}  // namespace

std::size_t lrn_scratch_floats(std::size_t n, std::size_t channels) {
  return n / kLrnBlockPixels < channels ? channels : channels * kLrnBlockPixels;
}

void lrn(const Lrn& p, const float* input, float* scale, float* output, std::size_t n,
         float* scratch, Workers& workers) {
  const auto run_piece = HWY_DYNAMIC_DISPATCH(lrn_piece);
  const std::size_t block = p.channels * kLrnBlockPixels;
  const std::size_t piece = std::max<std::size_t>(kTaskFloats / block, 1) * block;
  const std::size_t own_scratch = lrn_scratch_floats(n, p.channels);
  workers.run((n + piece - 1) / piece, [&](std::size_t index, std::size_t worker) {
    const std::size_t start = index * piece;
    run_piece(p, input + start, scale + start, output + start, std::min(piece, n - start),
              scratch + worker * own_scratch);
  });
}

}  // namespace ravu::kernels
#endif
