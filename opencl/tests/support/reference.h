// Naive versions of the primitives, in double precision over (image, feature, row, column), written
// from their formulas and sharing no code with the provider.
#pragma once

#include <vector>

#include "support/Values.h"

namespace ravu::opencl::test {

struct ConvolutionCase {
  Dims in;
  int outputs = 1;
  int kernel_x = 1;
  int kernel_y = 1;
  int stride_x = 1;
  int stride_y = 1;
  int pad_x = 0;
  int pad_y = 0;
  int dilation_x = 1;
  int dilation_y = 1;
  int split = 1;
};
// Weights: per part (outputs / split, features / split, kernel y, kernel x); biases: all or none.
Values convolution(const Values& in, const std::vector<Values>& weights,
                   const std::vector<float>& biases, const ConvolutionCase& shape);

// The weights of neuron o for input (f, y, x): weights.at(o, f, y, x). Neurons along x.
Values fully_connected(const Values& in, const Values& weights, const std::vector<float>& biases);

Values rectify(const Values& in, const std::vector<float>& slopes);  // one, or one per feature
Values batch_norm(const Values& in, const std::vector<float>& mean,
                  const std::vector<float>& variance, float epsilon);
// Each size of the scale is 1 or the input's; the bias is shaped like it or empty.
Values scale(const Values& in, const Values& scales, const Values* biases);
Values eltwise(const Values& a, const Values& b, int mode);

struct PoolingCase {
  Dims in;
  int window_x = 1;
  int window_y = 1;
  int stride_x = 1;
  int stride_y = 1;
  int pad_x = 0;
  int pad_y = 0;
};
Values pooling(const Values& in, int mode, const PoolingCase& shape);

Values lrn_across(const Values& in, int size, float k, float alpha, float beta);
Values lrn_within(const Values& in, int size, float k, float alpha, float beta);
Values normalize(const Values& in, const std::vector<float>& scales, bool across_spatial,
                 float epsilon);
// Over the dimensions whose flag is set.
Values softmax(const Values& in, bool over_b, bool over_f, bool over_y, bool over_x);
Values concatenate(const std::vector<Values>& in, char axis);
Values crop(const Values& in, const Dims& size, const Dims& offsets);

}  // namespace ravu::opencl::test
