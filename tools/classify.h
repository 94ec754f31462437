// ravu classify: names what image files show.
#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <vector>

#include "common/picture_run.h"

namespace ravu::tools {

struct ClassifyOptions : PictureOptions {
  std::uint32_t top = 5;
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
