// Local response normalisation in blocks of pixels. The running sum of one pixel is a chain of
// additions in a fixed order, so a block is turned and its pixels are summed side by side; the
// power is vectorised across elements.
#include <algorithm>

#include "kernels/kernels.h"
#include "kernels/workers.h"

#undef HWY_TARGET_INCLUDE
#define HWY_TARGET_INCLUDE "kernels/lrn.cpp"
#include <hwy/foreach_target.h>
#include <hwy/highway.h>

#include "kernels/for_each_vector-inl.h"
#include "kernels/transpose-inl.h"

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

// The denominators of one pixel. Channel c sums the squares of the channels from c - half to c +
// half as far as they exist.
void denominators(const Lrn& p, std::size_t channels, const float* squares, float* scale) {
  float sum = 0;
  for (std::size_t c = 0; c < channels && c < p.half; ++c) sum += squares[c];
  for (std::size_t c = 0; c < channels; ++c) {
    if (p.half < channels - c) sum += squares[c + p.half];
    scale[c] = sum + p.k;
    if (c >= p.half) sum -= squares[c - p.half];
  }
}

// The same for kLrnBlockPixels pixels side by side: rows of one channel's values. Each pixel's sum
// is the chain of additions above.
void denominators_of_rows(const Lrn& p, const float* squares, float* scale) {
  const hn::CappedTag<float, kLrnBlockPixels> d;
  const auto row = [](std::size_t c) { return c * kLrnBlockPixels; };
  for (std::size_t i = 0; i < kLrnBlockPixels; i += hn::Lanes(d)) {
    auto sum = hn::Zero(d);
    for (std::size_t c = 0; c < p.channels && c < p.half; ++c) {
      sum = hn::Add(sum, hn::LoadU(d, squares + row(c) + i));
    }
    for (std::size_t c = 0; c < p.channels; ++c) {
      if (p.half < p.channels - c) sum = hn::Add(sum, hn::LoadU(d, squares + row(c + p.half) + i));
      hn::StoreU(hn::Add(sum, hn::Set(d, p.k)), d, scale + row(c) + i);
      if (c >= p.half) sum = hn::Sub(sum, hn::LoadU(d, squares + row(c - p.half) + i));
    }
  }
}

// n values that begin with a pixel.
void lrn_piece(const Lrn& p, const float* input, float* scale, float* output, std::size_t n,
               float* scratch) {
  const std::size_t block = p.channels * kLrnBlockPixels;
  for (std::size_t start = 0; start < n;) {
    const bool whole = n - start >= block;
    const std::size_t run = whole ? block : (n - start < p.channels ? n - start : p.channels);
    float* own_scale = scale + start;
    if (whole) {
      float* turned = scratch + block;
      squares_of(input + start, own_scale, run, p.factor);
      turn_block(own_scale, p.channels, kLrnBlockPixels, p.channels, scratch, kLrnBlockPixels);
      denominators_of_rows(p, scratch, turned);
      turn_block(turned, kLrnBlockPixels, p.channels, kLrnBlockPixels, own_scale, p.channels);
    } else {
      squares_of(input + start, scratch, run, p.factor);
      denominators(p, run, scratch, own_scale);
    }
    apply_power(own_scale, input + start, output + start, run, p.power);
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
  return n / kLrnBlockPixels < channels ? channels : 2 * channels * kLrnBlockPixels;
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
