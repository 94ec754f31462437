// Convolution as matrix products over blocks of output pixels: gather as many patches as stay in
// the cache, multiply, add the bias while the block is warm. No more than one block of patches ever
// exists. A 1 x 1 kernel without stride and padding needs no patches: its input is the matrix.
#include <cblas.h>

#include <algorithm>
#include <cstring>

#include "kernels/kernels.h"

namespace ravu::kernels {
namespace {

constexpr std::size_t kScratchFloats = std::size_t{1} << 19;  // 2 MiB of patches
constexpr std::size_t kMinPixels = 64;    // below this the product becomes inefficient
constexpr std::size_t kMaxPixels = 1024;  // above this the block's output leaves the cache

// Pixels of a block and patch columns of a slice. Patches too long for the scratch area are
// multiplied slice by slice.
struct Blocking {
  std::size_t pixels;
  std::size_t slice;
};

Blocking choose_blocking(const ConvSizes& s) {
  const std::size_t patch = std::max<std::size_t>(patch_floats(s), 1);
  const std::size_t fitting = kScratchFloats / patch;
  const std::size_t wanted = std::clamp(fitting, kMinPixels, kMaxPixels);
  const std::size_t pixels = std::max<std::size_t>(std::min(wanted, s.rows * s.columns), 1);
  return {pixels, std::min(patch, kScratchFloats / pixels)};
}

bool reads_input_directly(const ConvSizes& s) {
  return s.kernel_h == 1 && s.kernel_w == 1 && s.stride_h == 1 && s.stride_w == 1 && s.pad_h == 0 &&
         s.pad_w == 0 && s.shift_h == 0 && s.shift_w == 0 && s.rows == s.height &&
         s.columns == s.width;
}

// Copies floats [begin, end) of one kernel row of a patch. `row` is the image row below it (null:
// outside the image), x the column of the row's first tap.
void gather_row(const ConvSizes& s, const float* row, std::ptrdiff_t x, std::size_t begin,
                std::size_t end, float* to) {
  const auto group = static_cast<std::ptrdiff_t>(s.group_channels);
  const auto from = static_cast<std::ptrdiff_t>(begin);
  const auto until = static_cast<std::ptrdiff_t>(end);
  const auto width = static_cast<std::ptrdiff_t>(s.width);
  const std::ptrdiff_t first = std::clamp(-x * group, from, until);
  const std::ptrdiff_t last =
      row == nullptr ? first : std::clamp((width - x) * group, first, until);
  std::fill(to, to + (first - from), 0.0F);
  if (s.group_channels == s.channels) {
    if (last > first)
      std::copy(row + x * group + first, row + x * group + last, to + (first - from));
  } else {
    for (std::ptrdiff_t k = first; k < last;) {
      const std::ptrdiff_t tap = k / group;
      const std::ptrdiff_t run = std::min((tap + 1) * group, last) - k;
      const float* source = row + (x + tap) * static_cast<std::ptrdiff_t>(s.channels) + k % group;
      std::copy(source, source + run, to + (k - from));
      k += run;
    }
  }
  std::fill(to + (last - from), to + (until - from), 0.0F);
}

// Columns [begin, end) of the patches of `count` pixels from `pixel` on, one row for each pixel.
void gather(const ConvSizes& s, const float* image, std::size_t pixel, std::size_t count,
            std::size_t begin, std::size_t end, float* patches) {
  const std::size_t row_floats = s.kernel_w * s.group_channels;
  const auto height = static_cast<std::ptrdiff_t>(s.height);
  for (std::size_t p = pixel; p < pixel + count; ++p) {
    const auto y0 = static_cast<std::ptrdiff_t>(s.shift_h + s.stride_h * (p / s.columns)) -
                    static_cast<std::ptrdiff_t>(s.pad_h);
    const auto x0 = static_cast<std::ptrdiff_t>(s.shift_w + s.stride_w * (p % s.columns)) -
                    static_cast<std::ptrdiff_t>(s.pad_w);
    for (std::size_t k = begin; k < end;) {
      const std::size_t ky = k / row_floats;
      const std::size_t run_end = std::min((ky + 1) * row_floats, end);
      const std::ptrdiff_t y = y0 + static_cast<std::ptrdiff_t>(ky);
      const float* row = y < 0 || y >= height ? nullptr : image + y * s.width * s.channels;
      gather_row(s, row, x0, k - ky * row_floats, run_end - ky * row_floats, patches);
      patches += run_end - k;
      k = run_end;
    }
  }
}

// output[p][m] = sum over `slice` columns (+ what is there already, for a later slice).
void multiply_block(const ConvSizes& s, std::size_t pixels, std::size_t slice, const float* weights,
                    const float* patches, std::size_t patch_stride, bool accumulate,
                    float* output) {
  const auto to_int = [](std::size_t n) { return static_cast<blasint>(n); };
  const std::size_t weight_stride = std::max<std::size_t>(patch_floats(s), 1);
  cblas_sgemm(CblasColMajor, CblasTrans, CblasNoTrans, to_int(s.kernels), to_int(pixels),
              to_int(slice), 1.0F, weights, to_int(weight_stride), patches,
              to_int(std::max<std::size_t>(patch_stride, 1)), accumulate ? 1.0F : 0.0F, output,
              to_int(s.out_channels));
}

}  // namespace

std::size_t patch_floats(const ConvSizes& s) {
  return s.kernel_h * s.kernel_w * s.group_channels;
}

std::size_t conv_scratch_floats(const ConvSizes& s) {
  if (reads_input_directly(s)) return 0;
  const Blocking blocking = choose_blocking(s);
  return blocking.pixels * blocking.slice;
}

void convolve(const ConvSizes& s, const float* input, const float* weights, const float* bias,
              std::size_t bias_count, const ElementSteps& steps, float* output, float* scratch) {
  const std::size_t pixels = s.rows * s.columns;
  const std::size_t patch = patch_floats(s);
  const bool direct = reads_input_directly(s);
  const Blocking blocking = direct ? Blocking{kMaxPixels, patch} : choose_blocking(s);
  for (std::size_t n = 0; n < s.batch; ++n) {
    const float* image = input + n * s.height * s.width * s.channels;
    for (std::size_t p = 0; p < pixels; p += blocking.pixels) {
      const std::size_t count = std::min(blocking.pixels, pixels - p);
      float* block = output + n * s.out_image + p * s.out_channels;
      std::size_t k = 0;
      do {  // once even for empty patches: their sums are zero
        const std::size_t slice = std::min(blocking.slice, patch - k);
        if (!direct) gather(s, image, p, count, k, k + slice, scratch);
        multiply_block(s, count, slice, weights + k, direct ? image + p * s.channels : scratch,
                       direct ? s.channels : slice, /*accumulate=*/k > 0, block);
        k += slice;
      } while (k < patch);
      if (bias != nullptr) {
        add_bias(block, count, s.kernels, s.out_channels, bias, bias_count,
                 (n * pixels + p) * s.kernels % bias_count);
      }
      apply_steps_to_rows(steps, block, count, s.kernels, s.out_channels);
    }
  }
}

}  // namespace ravu::kernels
