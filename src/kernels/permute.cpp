// Exchanging the axes of a three-dimensional array. Where the innermost axis stays, whole runs are
// copied; elsewhere planes are transposed tile by tile, so that both sides stay in the cache.
#include <algorithm>

#include "kernels/kernels.h"

namespace ravu::kernels {
namespace {

constexpr std::size_t kTile = 16;

// output[r * output_stride + c] = input[c * input_stride + r]
void transpose(const float* input, std::size_t input_stride, float* output,
               std::size_t output_stride, std::size_t rows, std::size_t columns) {
  for (std::size_t r0 = 0; r0 < rows; r0 += kTile) {
    const std::size_t r1 = std::min(rows, r0 + kTile);
    for (std::size_t c0 = 0; c0 < columns; c0 += kTile) {
      const std::size_t c1 = std::min(columns, c0 + kTile);
      for (std::size_t r = r0; r < r1; ++r) {
        for (std::size_t c = c0; c < c1; ++c) {
          output[r * output_stride + c] = input[c * input_stride + r];
        }
      }
    }
  }
}

}  // namespace

void permute(const AxisOrder& axes, const float* input, float* output) {
  const std::size_t input_strides[] = {axes.sizes[1] * axes.sizes[2], axes.sizes[2], 1};
  std::size_t size[3], stride[3];  // of the output's axes; strides in the input
  for (std::size_t i = 0; i < 3; ++i) {
    size[i] = axes.sizes[axes.order[i]];
    stride[i] = input_strides[axes.order[i]];
  }
  const std::size_t output_strides[] = {size[1] * size[2], size[2], 1};
  if (axes.order[2] == 2) {
    for (std::size_t i = 0; i < size[0]; ++i) {
      for (std::size_t j = 0; j < size[1]; ++j, output += size[2]) {
        const float* run = input + i * stride[0] + j * stride[1];
        std::copy(run, run + size[2], output);
      }
    }
    return;
  }
  // The output axis along which the input is contiguous, and the one that is left.
  const std::size_t row = axes.order[0] == 2 ? 0 : 1;
  const std::size_t plane = 1 - row;
  for (std::size_t p = 0; p < size[plane]; ++p) {
    transpose(input + p * stride[plane], stride[2], output + p * output_strides[plane],
              output_strides[row], size[row], size[2]);
  }
}

}  // namespace ravu::kernels
