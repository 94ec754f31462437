// The arithmetic of the layers on plain float arrays. Kernels know no Blob and no layer, allocate
// nothing and check nothing: callers have made sure that every size fits its array.
//
// Unless a comment says otherwise arrays are interleaved (channels fastest), input and output may
// be the same array where sizes agree, and every processor gives the same bits.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>

#include "kernels/element_steps.h"

namespace ravu::kernels {

class Workers;

// The instruction set that the vector kernels use on this processor: "AVX2".
const char* instruction_set();

// output[i] = input[i] * factor + addend, rounded after each of the two; i < n.
void multiply_and_add(const float* input, float* output, std::size_t n, float factor, float addend);

// output[i] = input[i] to the power of exponent, by the C library; i < n.
void raise_to_power(const float* input, float* output, std::size_t n, float exponent);

// output[i] = sum of coefficients[j] * inputs[j][i] over the terms j in order, from 0, and then the
// steps, which have no parameters; i < n. The output may be any of the inputs. The result does not
// depend on the number of threads.
void weighted_sum(const float* const* inputs, const float* coefficients, std::size_t terms,
                  const ElementSteps& steps, float* output, std::size_t n, Workers& workers);

// row[r][i] += bias[(phase + r * width + i) mod bias_count] for `rows` rows of `width` floats that
// start `stride` floats apart. bias_count is at least 1.
void add_bias(float* first_row, std::size_t rows, std::size_t width, std::size_t stride,
              const float* bias, std::size_t bias_count, std::size_t phase);

// Takes groups of channels out of pixels of `channels` floats: slice g holds `group_channels` of
// each pixel, from channel g * group_channels on. The slices stand one after another.
void split_channels(const float* input, std::size_t pixels, std::size_t channels,
                    std::size_t groups, std::size_t group_channels, float* slices);

// Puts the groups' pixels, which start `group_stride` floats apart, one group after another into
// pixels of `channels` floats. What no group has stays as it is.
void interleave_channels(const float* staging, std::size_t group_stride, std::size_t pixels,
                         std::size_t groups, std::size_t group_channels, float* output,
                         std::size_t channels);

// For each run of `length` values (the last one may be shorter): exp(x - greatest) times the
// reciprocal of their sum.
void softmax(const float* input, float* output, std::size_t n, std::size_t length);

// How one image's axes are exchanged: axis i of the output is axis order[i] of the input, whose
// axes have these sizes. The order holds 0, 1 and 2 once each.
struct AxisOrder {
  std::array<std::size_t, 3> sizes;
  std::array<std::size_t, 3> order;
};

// Moves one image; an axis of size 0 leaves nothing to move. Input and output are different arrays.
void permute(const AxisOrder& axes, const float* input, float* output, Workers& workers);

// to[c * to_stride + r] = from[r * from_stride + c] for `rows` x `columns` floats; strides in
// floats. The arrays are different ones. Without workers the calling thread does it alone.
void transpose(const float* from, std::size_t from_stride, std::size_t rows, std::size_t columns,
               float* to, std::size_t to_stride, Workers& workers);
void transpose(const float* from, std::size_t from_stride, std::size_t rows, std::size_t columns,
               float* to, std::size_t to_stride);

struct PoolingSizes {
  std::size_t batch, height, width, channels;
  std::size_t out_height, out_width;
  std::size_t kernel_h, kernel_w, stride_h, stride_w, pad_h, pad_w;
};

// Reduce each channel over square windows that are shortened, not shifted, at the border. The
// average divides by the full window area. Input and output are different arrays. The result does
// not depend on the number of threads.
void max_pooling(const PoolingSizes& sizes, const float* input, float* output, Workers& workers);
void average_pooling(const PoolingSizes& sizes, const float* input, float* output,
                     Workers& workers);

struct Lrn {
  std::size_t channels;  // of a pixel; at least 1
  std::size_t half;      // neighbours on each side that count
  float factor;          // of each square
  float power;           // that the denominators are raised to
  float k;               // added to each sum
};

// How many pixels `lrn` treats side by side, and the floats of scratch memory that each thread
// needs for n values.
inline constexpr std::size_t kLrnBlockPixels = 8;
std::size_t lrn_scratch_floats(std::size_t n, std::size_t channels);

// scale[i] = k + the sum of factor * x^2 over the neighbouring channels that exist, subtracting and
// adding as the window moves; output[i] = scale[i]^power * input[i], i < n. The power is an
// approximation by bit manipulation, good to about four digits. The last pixel may be incomplete.
// The result does not depend on the number of threads.
void lrn(const Lrn& lrn, const float* input, float* scale, float* output, std::size_t n,
         float* scratch, Workers& workers);

// squares[i] = input[i]^2; i < n.
void square(const float* input, float* squares, std::size_t n);

struct NormalizeSizes {
  std::size_t images;
  std::size_t image;             // floats from one image to the next
  std::size_t pixels, channels;  // of an image
};

// norms[n] = the root of the sum of image n's squares.
void image_norms(const NormalizeSizes& sizes, const float* squares, float* norms);

// Adds the squares of each pixel onto its norm, takes the root, and divides the pixel's channels by
// it; then scales each image by scale[0] (shared) or run c of `pixels` values by scale[c]. The
// norms and the squares may be the same array when a pixel has one channel.
void normalize_pixels(const NormalizeSizes& sizes, const float* input, const float* squares,
                      float* norms, const float* scale, bool shared, float* output);

// Half the width and height of a prior box, in image pixels.
struct HalfSides {
  float width, height;
};

// The cells of a feature map and where their centres lie in the image, in pixels.
struct PriorGrid {
  std::size_t rows, columns;
  float image_height, image_width;
  float step_y, step_x;
  float offset;  // of a centre within its cell, in cells
};

// Writes n boxes for each cell, row by row: xmin, ymin, xmax, ymax in parts of the image's size.
void prior_boxes(const PriorGrid& grid, const HalfSides* boxes, std::size_t n, float* output);

// Limits values to 0 and 1; not a number becomes 0.
void clip_to_one(float* values, std::size_t n);

// A box and its area, which is negative or positive as it falls for a box turned inside out.
struct Box {
  float xmin, ymin, xmax, ymax, size;
};

// How a location changes its prior box: its corners, its centre and the logarithms of its sides, or
// its corners in parts of its sides.
inline constexpr std::uint32_t kCornerBox = 1;
inline constexpr std::uint32_t kCentreSizeBox = 2;
inline constexpr std::uint32_t kCornerSizeBox = 3;

// The box of a location (four floats) relative to a prior box (four). Each value of the location
// is multiplied by its variance (four; null: none) first. All zeros for another code type.
Box decode_box(std::uint32_t code_type, const float* location, const float* prior,
               const float* variances);

// Boxes, one array per coordinate. The arrays are kBoxPadding longer than what they hold.
struct BoxColumns {
  float *xmin, *ymin, *xmax, *ymax, *size;
};
inline constexpr std::size_t kBoxPadding = 16;

// Walks n boxes and keeps those that overlap no kept box by more than the threshold (intersection
// over union). While the threshold is above 0.5 and eta below 1, each kept box multiplies it by
// eta. Moves the kept boxes to the front, their positions into `survivors` (room for n), and
// returns their number.
std::size_t suppress(const BoxColumns& boxes, std::size_t n, float threshold, float eta,
                     std::uint32_t* survivors);

// One group of a convolution.
struct ConvSizes {
  std::size_t batch, height, width;
  std::size_t channels;        // of the input, all groups: the distance of two pixels
  std::size_t group_channels;  // of one group
  std::size_t rows, columns;   // output pixels of an image that patches exist for
  std::size_t kernel_h, kernel_w, stride_h, stride_w, pad_h, pad_w;
  std::size_t shift_h, shift_w;  // where the first patch starts in the padded image
  std::size_t kernels;           // output channels of one group
  std::size_t out_channels;      // of the output, all groups: the distance of two pixels
  std::size_t out_image;         // distance of two images of the output
};

// Floats of one patch: kernel rows x kernel columns x group channels, in that order.
std::size_t patch_floats(const ConvSizes& sizes);

// Floats of scratch memory that `convolve` wants; bounded whatever the sizes are.
std::size_t conv_scratch_floats(const ConvSizes& sizes);

// output pixel p, channel m = sum over the patch of p with weight row m (+ bias; null: none). Taps
// outside the image count as zeros. `input` and `output` point at the group's first channel;
// weights: `kernels` rows of patch_floats. The bias is repeated over the product, image after
// image. The steps follow, their parameters for the group's channels. Agrees with the sums to
// rounding. Input and output are different arrays.
void convolve(const ConvSizes& sizes, const float* input, const float* weights, const float* bias,
              std::size_t bias_count, const ElementSteps& steps, float* output, float* scratch);

// A convolution whose every channel has a group, and one kernel, of its own. weights: one row of
// `channels` values for each tap; bias: one value for each channel; null: none. The steps follow.
// Taps outside the image count as zeros. Input and output are different arrays. The result does not
// depend on the number of threads; it agrees with the sums to rounding.
void convolve_depthwise(const ConvSizes& sizes, const float* input, const float* weights,
                        const float* bias, const ElementSteps& steps, float* output,
                        Workers& workers);

// output[n][m] = sum over k of weights[k][m] * input[n][k], for `batch` rows n, k in order. The
// result does not depend on the number of threads; processors may differ in rounding.
void multiply(const float* weights, const float* input, float* output, std::size_t batch,
              std::size_t features, std::size_t outputs, Workers& workers);

}  // namespace ravu::kernels
