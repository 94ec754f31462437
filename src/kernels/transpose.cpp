// Square blocks of a cache line on each side: of both matrices whole lines are used.
#include <algorithm>

#include "kernels/kernels.h"
#include "kernels/workers.h"

namespace ravu::kernels {
namespace {

constexpr std::size_t kBlock = 16;

}  // namespace

void transpose(const float* input, std::size_t rows, std::size_t columns, float* output,
               Workers& workers) {
  const std::size_t bands = (columns + kBlock - 1) / kBlock;
  workers.run(bands, [&](std::size_t band, std::size_t) {
    const std::size_t first = band * kBlock;
    const std::size_t end = std::min(first + kBlock, columns);
    for (std::size_t top = 0; top < rows; top += kBlock) {
      const std::size_t bottom = std::min(top + kBlock, rows);
      for (std::size_t c = first; c < end; ++c) {
        for (std::size_t r = top; r < bottom; ++r) output[c * rows + r] = input[r * columns + c];
      }
    }
  });
}

}  // namespace ravu::kernels
