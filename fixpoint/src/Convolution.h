// A convolution operator: each image becomes a padded picture of bytes, so that the primitive below
// sees no padding; its sums land in the output and become floats there.
#pragma once

#include <vector>

#include "Operator.h"

namespace ravu::fixpoint {

// The arguments of configure, in its order.
struct ConvSizes {
  std::int32_t output_channels, input_channels;
  std::int32_t kernel_h, kernel_w;
  std::int32_t stride_h, stride_w;
  std::int32_t dilation_h, dilation_w;
  std::int32_t pad_h, pad_w;
};

class Convolution : public Operator {
 public:
  bool configure(const ConvSizes& sizes, const float* weights, const float* bias);
  bool finish(float range);
  bool set_input(std::int32_t batch, std::int32_t channels, std::int32_t width, std::int32_t height,
                 const float* data, float range);
  bool run(float* output, float rounding);

 private:
  // The padded picture of an image, valid until the next call.
  const std::uint8_t* picture_of(const float* image, const Quantiser& to_bytes);
  void quantise_image(const float* image, const Quantiser& to_bytes);
  // One row of the picture from a row of the image's bytes.
  void copy_row(const std::uint8_t* row, std::uint8_t* bytes) const;
  // n pixels of it, from column x of the image on; those in the padding are left alone.
  void copy_pixels(const std::uint8_t* row, std::int64_t x, std::int64_t n,
                   std::uint8_t* bytes) const;

  ConvSizes sizes_{};
  const float* weights_ = nullptr;  // until finish
  std::vector<float> bias_;
  std::int64_t batch_ = 0, height_ = 0, width_ = 0;
  ImageSizes padded_{};
  const float* input_ = nullptr;  // until run
  float range_ = 0;
  std::vector<std::uint8_t> plain_;    // the image in bytes
  std::vector<std::uint8_t> picture_;  // the same with padding
};

}  // namespace ravu::fixpoint
