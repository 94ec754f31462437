// Small models that several tests use. Needs no engine code, like ModelBuilder.
#pragma once

#include <vector>

#include "support/ModelBuilder.h"

namespace ravu::test {

// A record "neuron": outputs = input x weights + bias; the weights lie row after row, one row for
// each of the input's values.
Dictionary neuron(const char* input, const char* output, int features, int outputs,
                  const std::vector<float>& weights, const std::vector<float>& bias);

// A model that is its input alone.
ModelBuilder input_only(int size, int channels);

// 2 x 2 images of one channel -> rectifier "rectified" -> "pooled", the greatest of the four ->
// fully connected "scores" of two values: pooled + 1 and 2 pooled + 5.
ModelBuilder small_classifier();

}  // namespace ravu::test
