// ravu diff: layer by layer, where two run modes or two models part.
#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "common/layer_outputs.h"
#include "common/picture_input.h"

namespace ravu::tools {

struct DiffOptions {
  std::vector<std::string> files;    // one or two models, then perhaps an image
  std::vector<std::uint32_t> modes;  // two for one model; one or none (mode 0) for two
  PictureInput input;
  bool channel_mean = false;
  double tolerance = 1e-4;
  std::uint32_t threads = 0;  // 0: the BLAS library's own default
  bool json = false;
};

struct DiffSide {
  std::string model;
  std::uint32_t mode;
};

// How far one layer's two outputs are apart.
struct LayerDifference {
  std::size_t index;  // in the first network
  std::string class_name;
  std::string output;
  std::array<std::uint32_t, 4> shape{};
  double error = 0;     // the largest difference of two values
  double range = 0;     // the greatest minus the least value of the first network
  bool above = false;   // the tolerance
  std::string problem;  // why they are not compared; empty where they are

  // The error in parts of the range; the error itself where the values are all the same.
  double relative() const { return range > 0 ? error / range : error; }
};

struct DiffReport {
  DiffSide first, second;
  std::string image;  // empty: seeded values
  double tolerance = 0;
  std::vector<LayerDifference> layers;     // that both networks have, in the first one's order
  std::vector<std::string> only_in_first;  // "class output"
  std::vector<std::string> only_in_second;
  std::optional<std::size_t> first_above;  // in `layers`
};

// Whether a file is a network that models are made from ("net.onnx", "net.prototxt"): models are
// compared with these in Python.
bool is_conversion_source(const std::string& path);

// What is wrong with the files and modes together; empty when nothing is.
std::string misuse_of(const DiffOptions& options);

// The error and range of two outputs of one layer. Values that are not finite differ infinitely
// unless both are the same; so do outputs of different sizes. In tables of detections each row is
// compared with the nearest one of the same image and label, whatever its place, in parts of the
// image; a row without a partner differs by its score.
LayerDifference compare_outputs(const LayerOutput& first, const LayerOutput& second);

// Compares layers of the same output name; where several write one Blob, the first with the first
// and so on. Throws Failure when there are none in common.
DiffReport compare_networks(const std::vector<LayerOutput>& first,
                            const std::vector<LayerOutput>& second, double tolerance);

// Returns whether all layers agree within the tolerance. Throws Failure.
bool run_diff(const DiffOptions& options);

}  // namespace ravu::tools
