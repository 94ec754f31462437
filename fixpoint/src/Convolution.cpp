// The image is quantised in one piece, since rows of few channels are short; then its rows are
// copied to their places in the picture, unless that is the image itself. Padding holds the byte
// that stands for 0. What no window covers is left out of the picture: where the stride is longer
// than the kernel, windows stand side by side in it.
#include "Convolution.h"

#include <algorithm>
#include <utility>

#include "threads.h"

namespace ravu::fixpoint {
namespace {

// Windows along one axis. The kernel's start moves by (dilation - 1); its taps stay together.
std::int64_t windows(std::int64_t size, std::int64_t pad, std::int64_t kernel, std::int64_t stride,
                     std::int64_t dilation) {
  const std::int64_t room = size + 2 * pad - (dilation - 1) * (stride + 1) - kernel;
  return room < 0 ? 0 : room / stride + 1;
}

// From one window to the next in the picture.
std::int64_t picture_stride(std::int64_t kernel, std::int64_t stride) {
  return std::min(kernel, stride);
}

// What that many windows cover of the picture.
std::int64_t covered(std::int64_t count, std::int64_t kernel, std::int64_t stride) {
  return count == 0 ? 0 : (count - 1) * picture_stride(kernel, stride) + kernel;
}

constexpr std::size_t kBlock = 16384;  // floats that one thread quantises at a time
constexpr std::size_t kReadPast = 1;   // bytes behind a picture that the sums may look at

// Whether a picture of so many bytes is in proportion to what goes in and comes out: all but
// padding otherwise, which a few numbers could make as large as they like.
bool in_proportion(std::int64_t bytes, std::int64_t input, std::int64_t output) {
  constexpr std::int64_t kSmall = std::int64_t{1} << 24;
  return bytes <= std::max(kSmall, 16 * (input + output));
}

bool valid(const ConvSizes& s) {
  for (const std::int32_t size : {s.output_channels, s.input_channels, s.kernel_h, s.kernel_w,
                                  s.stride_h, s.stride_w, s.dilation_h, s.dilation_w}) {
    if (!valid_size(size)) return false;
  }
  if (s.pad_h < 0 || s.pad_h > kMaxSize || s.pad_w < 0 || s.pad_w > kMaxSize) return false;
  const std::int64_t row = std::int64_t{s.kernel_h} * s.kernel_w * s.input_channels;
  return row <= kMaxElements && row * s.output_channels <= kMaxElements;
}

}  // namespace

bool Convolution::configure(const ConvSizes& sizes, const float* weights, const float* bias) {
  if (finished() || weights == nullptr || !valid(sizes)) return false;
  bias_ = bias == nullptr ? std::vector<float>()
                          : std::vector<float>(bias, bias + sizes.output_channels);
  sizes_ = sizes;
  weights_ = weights;
  return true;
}

bool Convolution::finish(float range) {
  if (finished() || weights_ == nullptr) return false;
  const KernelSizes kernel{sizes_.output_channels,
                           sizes_.input_channels,
                           sizes_.kernel_h,
                           sizes_.kernel_w,
                           picture_stride(sizes_.kernel_h, sizes_.stride_h),
                           picture_stride(sizes_.kernel_w, sizes_.stride_w)};
  if (!quantise_weights_of(kernel, weights_, range, bias_)) return false;
  weights_ = nullptr;
  return true;
}

bool Convolution::set_input(std::int32_t batch, std::int32_t channels, std::int32_t width,
                            std::int32_t height, const float* data, float range) {
  if (!finished() || data == nullptr || !valid_size(batch) || !valid_size(width) ||
      !valid_size(height) || channels != sizes_.input_channels ||
      !within(range, 1, kGreatestInput)) {
    return false;
  }
  const ConvSizes& s = sizes_;
  ImageSizes image{};
  image.rows = windows(height, s.pad_h, s.kernel_h, s.stride_h, s.dilation_h);
  image.columns = windows(width, s.pad_w, s.kernel_w, s.stride_w, s.dilation_w);
  image.height = covered(image.rows, s.kernel_h, s.stride_h);
  image.width = covered(image.columns, s.kernel_w, s.stride_w);
  // Sizes are below 2^24 each, so three of them fit 64 bits.
  const std::int64_t input = std::int64_t{height} * width * channels;
  const std::int64_t bytes = image.height * image.width * channels;
  const std::int64_t output = image.rows * image.columns * s.output_channels;
  for (const std::int64_t elements : {input, bytes, output}) {
    if (elements > kMaxElements || elements * batch > kMaxElements) return false;
  }
  if (!in_proportion(bytes, input, output)) return false;
  batch_ = batch;
  height_ = height;
  width_ = width;
  padded_ = image;
  input_ = data;
  range_ = range;
  return true;
}

bool Convolution::run(float* output, float rounding) {
  if (input_ == nullptr || output == nullptr || !within(rounding, 0, 1)) return false;
  const float* image = std::exchange(input_, nullptr);
  if (padded_.rows == 0 || padded_.columns == 0) return true;
  const auto n = static_cast<std::size_t>(height_ * width_ * sizes_.input_channels);
  const auto sums = static_cast<std::size_t>(padded_.rows * padded_.columns) *
                    static_cast<std::size_t>(sizes_.output_channels);
  for (std::int64_t i = 0; i < batch_; ++i, image += n, output += sums) {
    const Extent seen = extent(image, n);
    const Quantiser to_bytes{range_ / seen.magnitude, rounding, seen.signs ? kZeroPoint : 0};
    compute(padded_, picture_of(image, to_bytes), seen.signs, output);
    finish_sums(output, sums, seen.signs, seen.magnitude / range_);
  }
  return true;
}

const std::uint8_t* Convolution::picture_of(const float* image, const Quantiser& to_bytes) {
  quantise_image(image, to_bytes);
  // Where the first window starts in the image; negative within the padding.
  const std::int64_t top = std::int64_t{sizes_.dilation_h} - 1 - sizes_.pad_h;
  const std::int64_t left = std::int64_t{sizes_.dilation_w} - 1 - sizes_.pad_w;
  if (top == 0 && left == 0 && padded_.height == height_ && padded_.width == width_) {
    return plain_.data();
  }
  const auto row_bytes = static_cast<std::size_t>(padded_.width * sizes_.input_channels);
  picture_.assign(static_cast<std::size_t>(padded_.height) * row_bytes + kReadPast,
                  static_cast<std::uint8_t>(to_bytes.zero_point));
  const std::int64_t skipped = sizes_.stride_h - picture_stride(sizes_.kernel_h, sizes_.stride_h);
  const int threads = threads_for_floats(static_cast<std::int64_t>(picture_.size()));
  share(threads, static_cast<std::size_t>(padded_.height), [&](std::size_t r) {
    const auto row = static_cast<std::int64_t>(r);
    const std::int64_t y = top + row + row / sizes_.kernel_h * skipped;
    if (y < 0 || y >= height_) return;
    copy_row(plain_.data() + y * width_ * sizes_.input_channels, picture_.data() + r * row_bytes);
  });
  return picture_.data();
}

// The rows between windows that lie apart are left out.
void Convolution::quantise_image(const float* image, const Quantiser& to_bytes) {
  const auto row = static_cast<std::size_t>(width_ * sizes_.input_channels);
  const std::size_t n = static_cast<std::size_t>(height_) * row;
  plain_.resize(n + kReadPast);
  const std::size_t run = sizes_.stride_h > sizes_.kernel_h ? row : kBlock;
  const int threads = threads_for_floats(static_cast<std::int64_t>(n));
  share(threads, (n + run - 1) / run, [&](std::size_t i) {
    const auto y =
        static_cast<std::int64_t>(i * run / row) - (sizes_.dilation_h - 1) + sizes_.pad_h;
    if (run == row && y % sizes_.stride_h >= sizes_.kernel_h) return;
    const std::size_t first = i * run;
    quantise(image + first, std::min(run, n - first), to_bytes, plain_.data() + first);
  });
}

void Convolution::copy_row(const std::uint8_t* row, std::uint8_t* bytes) const {
  const std::int64_t left = std::int64_t{sizes_.dilation_w} - 1 - sizes_.pad_w;
  if (sizes_.stride_w <= sizes_.kernel_w) {
    copy_pixels(row, left, padded_.width, bytes);
    return;
  }
  for (std::int64_t c = 0; c < padded_.columns; ++c) {
    copy_pixels(row, left + c * sizes_.stride_w, sizes_.kernel_w,
                bytes + c * sizes_.kernel_w * sizes_.input_channels);
  }
}

void Convolution::copy_pixels(const std::uint8_t* row, std::int64_t x, std::int64_t n,
                              std::uint8_t* bytes) const {
  const std::int64_t channels = sizes_.input_channels;
  const std::int64_t from = std::clamp<std::int64_t>(-x, 0, n);
  const std::int64_t to = std::clamp<std::int64_t>(width_ - x, from, n);
  std::copy(row + (x + from) * channels, row + (x + to) * channels, bytes + from * channels);
}

}  // namespace ravu::fixpoint
