// A fully connected layer reads each weight once for each image, or once for several images at a
// time: the speed of memory is what counts. Rows of weights stream by in pieces of some outputs,
// whose sums stay in the nearest cache.
#include <algorithm>

#include "kernels/kernels.h"
#include "kernels/workers.h"

#undef HWY_TARGET_INCLUDE
#define HWY_TARGET_INCLUDE "kernels/fully_connected.cpp"
#include <hwy/foreach_target.h>
#include <hwy/highway.h>

#include "kernels/for_each_vector-inl.h"

HWY_BEFORE_NAMESPACE();
namespace ravu::kernels::HWY_NAMESPACE {
namespace {

namespace hn = hwy::HWY_NAMESPACE;

constexpr std::size_t kRows = 4;  // of weights in one pass over the sums

// sums[i] += sum over `kCount` rows r of weights[r * stride + i] * features[r], i < n.
template <std::size_t kCount>
void add_rows(const float* weights, std::size_t stride, const float* features, std::size_t n,
              float* sums) {
  for_each_vector(n, [=](auto d, std::size_t i) {
    auto sum = hn::LoadU(d, sums + i);
#pragma GCC unroll 4
    for (std::size_t r = 0; r < kCount; ++r) {
      sum = hn::MulAdd(hn::Set(d, features[r]), hn::LoadU(d, weights + r * stride + i), sum);
    }
    hn::StoreU(sum, d, sums + i);
  });
}

// Outputs [0, n) of `images` images.
void multiply_piece(const float* weights, std::size_t stride, const float* input,
                    std::size_t features, std::size_t images, std::size_t n, float* output) {
  for (std::size_t image = 0; image < images; ++image)
    std::fill_n(output + image * stride, n, 0.0F);
  std::size_t k = 0;
  for (; k + kRows <= features; k += kRows) {
    for (std::size_t image = 0; image < images; ++image) {
      add_rows<kRows>(weights + k * stride, stride, input + image * features + k, n,
                      output + image * stride);
    }
  }
  for (; k < features; ++k) {
    for (std::size_t image = 0; image < images; ++image) {
      add_rows<1>(weights + k * stride, stride, input + image * features + k, n,
                  output + image * stride);
    }
  }
}

}  // namespace
}  // namespace ravu::kernels::HWY_NAMESPACE
HWY_AFTER_NAMESPACE();

#if HWY_ONCE
namespace ravu::kernels {
namespace {

HWY_EXPORT(multiply_piece);

constexpr std::size_t kPieceSums = 4096;  // of all images of a turn: half of a 32 KiB cache
constexpr std::size_t kShortestPiece = 64;
constexpr std::size_t kImages = 4;  // that share one pass over the weights

}  // namespace

void multiply(const float* weights, const float* input, float* output, std::size_t batch,
              std::size_t features, std::size_t outputs, Workers& workers) {
  const auto piece_function = HWY_DYNAMIC_DISPATCH(multiply_piece);
  // Pieces as long as can be: memory is read fastest where rows go on and on.
  const std::size_t longest = kPieceSums / std::clamp<std::size_t>(batch, 1, kImages);
  const std::size_t share = (outputs + workers.threads() - 1) / workers.threads();
  const std::size_t piece = std::clamp(share, kShortestPiece, longest);
  const std::size_t pieces = (outputs + piece - 1) / piece;
  const std::size_t turns = (batch + kImages - 1) / kImages;
  workers.run(pieces * turns, [&](std::size_t index, std::size_t) {
    const std::size_t first = index % pieces * piece;
    const std::size_t image = index / pieces * kImages;
    piece_function(weights + first, outputs, input + image * features, features,
                   std::min(kImages, batch - image), std::min(piece, outputs - first),
                   output + image * outputs + first);
  });
}

}  // namespace ravu::kernels
#endif
