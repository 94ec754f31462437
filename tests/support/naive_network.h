// A model file and, beside it, its naive evaluation: each call adds a layer to both. The evaluation
// is made of the reference layers alone and calls no engine code.
#pragma once

#include <functional>
#include <map>
#include <string>
#include <vector>

#include "support/ModelBuilder.h"

namespace ravu::test {

// Values with their dims, interleaved.
struct Tensor {
  int batch = 1, height = 1, width = 1, channels = 1;
  std::vector<float> values = {};
  int pixels() const { return height * width; }
};

// An input with values between -1 and 1.
Tensor random_tensor(int batch, int height, int width, int channels, unsigned seed);

using Tensors = std::map<std::string, Tensor>;

struct ConvOptions {
  int kernels;  // of one group
  int kernel;
  int stride = 1;
  int pad = 0;
  int groups = 1;
};

struct PoolOptions {
  bool maximum;
  int kernel;
  int stride;
  int pad = 0;
};

struct PriorOptions {
  std::vector<float> min_sizes, max_sizes, aspect_ratios;
  int per_cell;  // boxes; what the three lists come to
};

struct DetectionOptions {
  int priors, classes, keep_top_k;
  float confidence_threshold;
};

// Weights come from one seeded series. They do not depend on the input's size, but for those of
// fully connected layers.
class NaiveNetwork {
 public:
  using Name = const char*;

  NaiveNetwork(int size, int channels);  // the input is "data"

  void mean_image();
  void crop_to(int size);  // before any layer
  void conv(Name from, Name to, const ConvOptions& options);
  void fully_connected(Name from, Name to, int features, int outputs);
  void batch_norm(Name from, Name to);
  void scale(Name from, Name to);
  void relu(Name from, Name to, float slope = 0);
  void prelu(Name from, Name to);
  void power_in_place(Name blob, float power, float scale, float shift);
  void sum(Name a, Name b, Name to);
  void pool(Name from, Name to, const PoolOptions& options);
  void lrn(Name from, Name to, int size);
  void l2_norm(Name from, Name to, float scale);
  void softmax(Name from, Name to);
  void concat(Name a, Name b, Name to);
  void flatten(Name from, Name to);
  void reshape_to_rows(Name from, Name to, int rows, int channels);  // of each image
  void transpose(Name from, Name to);  // channel, row, column inside each image
  void priors(Name map, Name to, const PriorOptions& options);
  void detections(Name locations, Name scores, Name priors, Name to,
                  const DetectionOptions& options);

  const ModelBuilder& model() const { return model_; }

  // Every Blob's last value. Blobs that a later layer changes in place hold what it made of them.
  Tensors evaluate(const Tensor& input) const;

 private:
  std::vector<float> weights(int count, int summed);
  int channels_of(Name blob) const { return channels_.at(blob); }
  void add(const Bytes& record, Name to, int channels, std::function<void(Tensors&)> step);

  ModelBuilder model_;
  std::map<std::string, int> channels_;
  std::vector<std::function<void(Tensors&)>> steps_;
  int input_size_;
  unsigned seed_ = 0;
};

// The table that the detector's last stage makes of three tensors, at most keep_top_k rows.
std::vector<float> naive_detections(const DetectionOptions& options, const Tensor& locations,
                                    const Tensor& scores, const Tensor& priors);

}  // namespace ravu::test
