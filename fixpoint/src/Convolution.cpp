// Padding holds the byte that stands for 0, and only what some window covers is quantised.
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

// What that many windows cover.
std::int64_t covered(std::int64_t count, std::int64_t kernel, std::int64_t stride) {
  return count == 0 ? 0 : (count - 1) * stride + kernel;
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
  const KernelSizes kernel{sizes_.output_channels, sizes_.input_channels, sizes_.kernel_h,
                           sizes_.kernel_w,        sizes_.stride_h,       sizes_.stride_w};
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
    quantise_image(image, range_ / seen.magnitude, rounding, seen.signs);
    compute(padded_, bytes_.data(), seen.signs, output);
    finish_sums(output, sums, seen.signs, seen.magnitude / range_);
  }
  return true;
}

void Convolution::quantise_image(const float* image, float factor, float rounding, bool signs) {
  const std::int32_t zero = signs ? kZeroPoint : 0;
  const auto channels = static_cast<std::size_t>(sizes_.input_channels);
  const auto row_bytes = static_cast<std::size_t>(padded_.width) * channels;
  const auto row_floats = static_cast<std::size_t>(width_) * channels;
  bytes_.resize(static_cast<std::size_t>(padded_.height) * row_bytes);
  // Where the covered part starts in the image; negative within the padding.
  const std::int64_t top = std::int64_t{sizes_.dilation_h} - 1 - sizes_.pad_h;
  const std::int64_t left = std::int64_t{sizes_.dilation_w} - 1 - sizes_.pad_w;
  const std::int64_t from = std::clamp<std::int64_t>(-left, 0, padded_.width);
  const std::int64_t to = std::clamp<std::int64_t>(width_ - left, from, padded_.width);
  const auto before = static_cast<std::size_t>(from) * channels;
  const auto until = static_cast<std::size_t>(to) * channels;
  const int threads = threads_for_floats(static_cast<std::int64_t>(bytes_.size()));
  share(threads, static_cast<std::size_t>(padded_.height), [&](std::size_t r) {
    std::uint8_t* bytes = bytes_.data() + r * row_bytes;
    const std::int64_t y = top + static_cast<std::int64_t>(r);
    if (y < 0 || y >= height_) {
      std::fill_n(bytes, row_bytes, static_cast<std::uint8_t>(zero));
      return;
    }
    const float* row = image + static_cast<std::size_t>(y) * row_floats;
    std::fill_n(bytes, before, static_cast<std::uint8_t>(zero));
    if (until > before) {
      quantise(row + static_cast<std::size_t>(left + from) * channels, until - before, factor,
               rounding, zero, bytes + before);
    }
    std::fill_n(bytes + until, row_bytes - until, static_cast<std::uint8_t>(zero));
  });
}

}  // namespace ravu::fixpoint
