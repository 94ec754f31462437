// Turning small matrices over in registers, compiled once per instruction set with the source that
// includes it; hence the guard that Highway toggles.
#if defined(RAVU_KERNELS_TRANSPOSE_INL_H_) == defined(HWY_TARGET_TOGGLE)
#ifdef RAVU_KERNELS_TRANSPOSE_INL_H_
#undef RAVU_KERNELS_TRANSPOSE_INL_H_
#else
#define RAVU_KERNELS_TRANSPOSE_INL_H_
#endif

#include <hwy/highway.h>

#include <cstddef>

HWY_BEFORE_NAMESPACE();
namespace ravu::kernels::HWY_NAMESPACE {
namespace {

// to[c][r] = from[r][c] for 4 x 4 floats; rows lie a stride apart.
inline void turn_square(const float* from, std::size_t from_stride, float* to,
                        std::size_t to_stride) {
#if HWY_TARGET == HWY_SCALAR
  for (std::size_t r = 0; r < 4; ++r) {
    for (std::size_t c = 0; c < 4; ++c) to[c * to_stride + r] = from[r * from_stride + c];
  }
#else
  namespace hn = hwy::HWY_NAMESPACE;
  const hn::FixedTag<float, 4> d;
  const hn::FixedTag<double, 2> pairs;
  const auto first = hn::LoadU(d, from);
  const auto second = hn::LoadU(d, from + from_stride);
  const auto third = hn::LoadU(d, from + 2 * from_stride);
  const auto fourth = hn::LoadU(d, from + 3 * from_stride);
  const auto upper_left = hn::BitCast(pairs, hn::InterleaveLower(d, first, second));
  const auto upper_right = hn::BitCast(pairs, hn::InterleaveUpper(d, first, second));
  const auto lower_left = hn::BitCast(pairs, hn::InterleaveLower(d, third, fourth));
  const auto lower_right = hn::BitCast(pairs, hn::InterleaveUpper(d, third, fourth));
  const auto store = [=](auto both, std::size_t c)
                         HWY_ATTR { hn::StoreU(hn::BitCast(d, both), d, to + c * to_stride); };
  store(hn::InterleaveLower(pairs, upper_left, lower_left), 0);
  store(hn::InterleaveUpper(pairs, upper_left, lower_left), 1);
  store(hn::InterleaveLower(pairs, upper_right, lower_right), 2);
  store(hn::InterleaveUpper(pairs, upper_right, lower_right), 3);
#endif
}

// to[c][r] = from[r][c] for `rows` x `columns` floats; rows lie a stride apart.
inline void turn_block(const float* from, std::size_t from_stride, std::size_t rows,
                       std::size_t columns, float* to, std::size_t to_stride) {
  for (std::size_t r = 0; r < rows; r += 4) {
    for (std::size_t c = 0; c < columns; c += 4) {
      if (r + 4 <= rows && c + 4 <= columns) {
        turn_square(from + r * from_stride + c, from_stride, to + c * to_stride + r, to_stride);
        continue;
      }
      for (std::size_t y = r; y < rows && y < r + 4; ++y) {
        for (std::size_t x = c; x < columns && x < c + 4; ++x) {
          to[x * to_stride + y] = from[y * from_stride + x];
        }
      }
    }
  }
}

}  // namespace
}  // namespace ravu::kernels::HWY_NAMESPACE
HWY_AFTER_NAMESPACE();

#endif
