// Exchanging the axes of a three-dimensional array. Where the innermost axis stays, whole runs are
// copied; elsewhere planes are transposed.
#include <algorithm>

#include "kernels/kernels.h"
#include "kernels/workers.h"

namespace ravu::kernels {

void permute(const AxisOrder& axes, const float* input, float* output, Workers& workers) {
  const auto& sizes = axes.sizes;
  if (std::find(sizes.begin(), sizes.end(), 0U) != sizes.end()) return;
  const std::size_t input_strides[] = {sizes[1] * sizes[2], sizes[2], 1};
  std::size_t size[3], stride[3];  // of the output's axes; strides in the input
  for (std::size_t i = 0; i < 3; ++i) {
    size[i] = sizes[axes.order[i]];
    stride[i] = input_strides[axes.order[i]];
  }
  const std::size_t output_strides[] = {size[1] * size[2], size[2], 1};
  if (axes.order[2] == 2) {
    workers.run(size[0], [&](std::size_t i, std::size_t) {
      for (std::size_t j = 0; j < size[1]; ++j) {
        const float* run = input + i * stride[0] + j * stride[1];
        std::copy(run, run + size[2], output + i * output_strides[0] + j * output_strides[1]);
      }
    });
    return;
  }
  // The output axis along which the input is contiguous, and the one that is left.
  const std::size_t row = axes.order[0] == 2 ? 0 : 1;
  const std::size_t plane = 1 - row;
  workers.run(size[plane], [&](std::size_t p, std::size_t) {
    transpose(input + p * stride[plane], stride[2], size[2], size[row],
              output + p * output_strides[plane], output_strides[row]);
  });
}

}  // namespace ravu::kernels
