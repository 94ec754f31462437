// ravu detect: finds objects in image files.
#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <vector>

#include "common/picture_run.h"

namespace ravu::tools {

struct DetectOptions : PictureOptions {
  float threshold = 0.5F;
  std::string out;  // folder of the pictures with boxes; empty for none
};

struct FoundObject {
  std::string label;  // the index as text when the model names no such label
  std::uint32_t index;
  float score;
  // In pixels of the picture, cut off at its borders.
  double xmin, ymin, xmax, ymax;
};

struct ImageDetections {
  std::string image;
  std::uint32_t width, height;       // of the picture
  std::vector<FoundObject> objects;  // highest score first
};

// What the rows of a detection output (image, label, score, and corners as fractions of the image
// that the network sees) say about a picture of width x height, in which that image is `seen`.
// Rows end at the first that is all zero. Left out are scores below the threshold, and boxes that
// are empty, not numbers or outside the picture.
std::vector<FoundObject> objects_of(std::span<const float> rows, std::span<char* const> labels,
                                    const Area& seen, std::uint32_t width, std::uint32_t height,
                                    float threshold);

// Runs all images through one network, one after another. An image that cannot be read gets a line
// on standard error and the others go on. Returns whether all could be read. Throws Failure.
bool run_detect(const DetectOptions& options);

}  // namespace ravu::tools
