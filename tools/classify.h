// ravu classify: names what image files show.
#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <vector>

#include "common/picture_input.h"

namespace ravu::tools {

struct ClassifyOptions {
  std::string model;
  std::vector<std::string> images;
  std::uint32_t top = 5;
  PictureInput input;
  bool channel_mean = false;
  std::uint32_t mode = 0;
  std::uint32_t threads = 0;  // 0: the BLAS library's own default
  bool json = false;
  std::string sheet;  // file of the contact sheet; empty for none
};

struct Prediction {
  std::string label;  // the index as text when the model names no such label
  std::uint32_t index;
  float score;
};

struct Classification {
  std::string image;
  std::vector<Prediction> predictions;  // best first
};

// The `top` highest scores, best first; equal ones in the order of their indices, those that are
// not numbers last.
std::vector<Prediction> best_predictions(std::span<const float> scores,
                                         std::span<char* const> labels, std::uint32_t top);

// Runs all images through one network, one after another. An image that cannot be read gets a line
// on standard error and the others go on. Returns whether all could be read. Throws Failure.
bool run_classify(const ClassifyOptions& options);

}  // namespace ravu::tools
