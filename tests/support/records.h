// Records of layers with random weights, for whole small networks.
#pragma once

#include <string>
#include <vector>

#include "support/ModelBuilder.h"

namespace ravu::test {

// A tensor record of these dims with values between -1 and 1.
Bytes random_tensor(const std::vector<std::int32_t>& dims, unsigned seed);

struct ConvKeys {
  int inputs;   // channels, of one group
  int kernels;  // outputs, of one group
  int ksize = 3;
  int stride = 1;
  int padding = 0;
  bool bias = true;
  int dilation = 1;
};
Dictionary conv_record(const std::string& from, const std::string& to, const ConvKeys& keys,
                       unsigned seed = 1);
Dictionary group_record(const std::string& from, const std::string& to, int groups,
                        const ConvKeys& keys, unsigned seed = 1);

Dictionary pool_record(const std::string& from, const std::string& to, const char* mode, int psize,
                       int stride, int padding = 0);

// Weights of one row for each of the input's values.
Dictionary neuron_record(const std::string& from, const std::string& to, int features, int outputs,
                         unsigned seed = 1);

// Divisors between 0.5 and 1.5.
Dictionary bn_record(const std::string& from, const std::string& to, int channels,
                     unsigned seed = 1);
Dictionary scale_record(const std::string& from, const std::string& to,
                        const std::vector<std::int32_t>& dims, bool bias, unsigned seed = 1);
Dictionary relu_record(const std::string& from, const std::string& to, float slope = 0.0F);
Dictionary prelu_record(const std::string& from, const std::string& to, int channels,
                        unsigned seed = 1);
Dictionary power_record(const std::string& from, const std::string& to, float power, float scale,
                        float shift);
Dictionary eltwise_record(const std::vector<std::string>& from, const std::string& to,
                          const char* operation);
Dictionary lrn_record(const std::string& from, const std::string& to, int size);
Dictionary norm_record(const std::string& from, const std::string& to, bool across_spatial,
                       bool channel_shared, const std::vector<float>& scale);
Dictionary reshape_record(const std::string& from, const std::string& to,
                          const std::vector<std::int32_t>& dims, int inferred_axis = -1);
Dictionary permute_record(const std::string& from, const std::string& to, bool need_permute,
                          const std::vector<std::int32_t>& order);

struct PriorKeys {
  std::vector<float> min_sizes{2.0F};
  std::vector<float> max_sizes{};
  std::vector<float> ratios{};
  std::vector<float> variances{0.1F};
  int num_priors = 1;
  int img_h = 0, img_w = 0;
  int step_h = 0, step_w = 0;
  bool flip = false;
  bool clip = false;
};
Dictionary prior_record(const std::vector<std::string>& from, const std::string& to,
                        const PriorKeys& keys);

struct DetectionKeys {
  int classes = 2;
  int keep_top_k = 5;
  int background = 0;
  int code_type = 2;
  int top_k = 10;
  float threshold = 0.1F;
  float nms = 0.45F;
  float eta = 1.0F;
  bool share = true;
  int location_classes = 0;  // 0: one where they are shared, else as many as classes
  bool encoded = false;      // the variances are in the locations already
};
Dictionary detection_record(const std::vector<std::string>& from, const std::string& to,
                            const DetectionKeys& keys);

}  // namespace ravu::test
