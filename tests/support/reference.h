// Naive layers, written from the definitions alone, for comparing kernels with. They call no engine
// code, not even for shapes.
#pragma once

#include <cstddef>
#include <vector>

namespace ravu::test::reference {

struct Pooling {
  int batch, height, width, channels, kernel, stride, pad_h, pad_w;
};
int pooled_size(int input, int kernel, int stride, int pad);
std::vector<float> pool(const Pooling& p, bool maximum, const std::vector<float>& input);

struct Conv {
  int batch, height, width, channels, groups, kernels, kernel, stride, pad;
  int dilation = 1;
};
// One axis: the output size that a plain record gets, and how many patches are gathered along it.
int conv_record_size(int input, const Conv& c);
int conv_patches(int input, const Conv& c);
// The sums in double precision and, for error bounds, the sums of the terms' magnitudes. One row of
// groups x kernels channels per patch, image after image; weights[g] has `kernels` rows in the
// order kernel row, kernel column, channel; bias[g] may be empty and repeats over the group's
// product.
struct Sums {
  std::vector<double> values;
  std::vector<double> magnitudes;
};
Sums convolve(const Conv& c, const std::vector<float>& input,
              const std::vector<std::vector<float>>& weights,
              const std::vector<std::vector<float>>& bias);

// output[n][m] = sum over k of weights[k][m] * input[n][k] + bias[(n * outputs + m) mod size].
Sums fully_connect(int batch, int features, int outputs, const std::vector<float>& input,
                   const std::vector<float>& weights, const std::vector<float>& bias);

// Whether each value lies within 2e-5 of the sums' rms or 2e-6 of its terms' magnitudes, whichever
// is larger; the first that does not is put into *where.
bool close_to(const std::vector<float>& values, const Sums& sums, std::size_t* where);

// x to the power p, approximated by bit manipulation.
float fast_power(float x, float p);
struct LrnResult {
  std::vector<float> scale;
  std::vector<float> output;
};
LrnResult lrn(int channels, int size, float alpha, float beta, float k,
              const std::vector<float>& input);

struct Normalize {
  int images, pixels, channels;
  bool channel_shared;
};
// One run of the per-pixel form. Squares and norms are what the last run left; they may be one
// vector.
std::vector<float> normalize(const Normalize& n, const std::vector<float>& input,
                             const std::vector<float>& scale, std::vector<float>& squares,
                             std::vector<float>& norms);

struct PriorBoxes {
  int map_h, map_w, image_h, image_w, step_h, step_w;  // one step 0: both derived
  float offset;
  bool clip;
  std::vector<float> min_sizes, max_sizes, aspect_ratios, variances;
};
// Both rows, with room for num_priors boxes per cell.
std::vector<float> prior_boxes(const PriorBoxes& p, int num_priors);

struct Detection {
  int images, priors, classes, loc_classes;
  bool share_location;
  int code_type;
  bool variance_encoded;
  int keep_top_k, top_k, background;
  float confidence_threshold, nms_threshold, eta;
};
// The table of detections, cut to whole rows within `room` floats and filled up with zeros.
std::vector<float> detection_output(const Detection& d, const std::vector<float>& locations,
                                    const std::vector<float>& confidences,
                                    const std::vector<float>& priors, std::size_t room);

std::vector<float> relu(const std::vector<float>& input, float slope);
// slopes[i mod channels] for the negative values.
std::vector<float> prelu(const std::vector<float>& input, const std::vector<float>& slopes,
                         std::size_t channels);
// The three steps; each starts from the input and writes the output, which are one when `shared`.
// `output` holds what was there before.
std::vector<float> power(std::vector<float> input, std::vector<float> output, bool shared,
                         float scale, float shift, float exponent);
std::vector<float> softmax(const std::vector<float>& input, std::size_t length);

// The first n sums of coefficients[j] * inputs[j][i].
std::vector<float> weighted_sum(const std::vector<std::vector<float>>& inputs,
                                const std::vector<float>& coefficients, std::size_t n);

// One pixel after the other, the channels of each input in turn.
std::vector<float> concat(const std::vector<std::vector<float>>& inputs,
                          const std::vector<std::size_t>& channels, std::size_t pixels);

// order[i] is the axis (0 row, 1 column, 2 channel) of the input that becomes axis i of the output.
struct Image {
  std::size_t batch, height, width, channels;
};
std::vector<float> permute(const Image& image, const std::vector<std::size_t>& order,
                           const std::vector<float>& input);

// `size` x `size` pixels of each image, from row and column `offset` on.
std::vector<float> crop(const Image& image, std::size_t offset, std::size_t size,
                        const std::vector<float>& input);

// Batch, height, width and channels of the output, where the values stay as they are. An entry of
// `wanted` above 0 replaces a dimension; `inferred` is -1 or the one that takes the rest.
using Sizes = std::vector<long>;
Sizes flattened(const Sizes& input);
Sizes reshaped(const Sizes& input, const Sizes& wanted, int inferred);

// Each step over runs of the parameters' length, the last one cut at the end.
std::vector<float> batch_norm(const std::vector<float>& input, const std::vector<float>& mean,
                              const std::vector<float>& divisor);
std::vector<float> scale(const std::vector<float>& input, const std::vector<float>& scales,
                         const std::vector<float>& bias);  // an empty bias adds nothing

}  // namespace ravu::test::reference
