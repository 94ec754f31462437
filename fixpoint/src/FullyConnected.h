// A fully connected operator. The images of a batch are the pixels of one picture under a 1 x 1
// kernel, each with an input step of its own.
#pragma once

#include <vector>

#include "Operator.h"

namespace ravu::fixpoint {

class FullyConnected : public Operator {
 public:
  bool configure(std::int32_t outputs, std::int32_t features, const float* weights,
                 const float* bias);
  bool finish(float range);
  bool set_input(std::int32_t batch, std::int32_t features, const float* data, float range);
  bool run(float* output, float rounding);

 private:
  std::int32_t outputs_ = 0, features_ = 0;
  const float* weights_ = nullptr;  // until finish
  std::vector<float> bias_;
  std::int32_t batch_ = 0;
  const float* input_ = nullptr;  // until run
  float range_ = 0;
  std::vector<Extent> extents_;  // of each image
  std::vector<std::uint8_t> bytes_;
};

}  // namespace ravu::fixpoint
