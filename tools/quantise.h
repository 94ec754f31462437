// ravu quantise: a model file with its large tensors in 8 bits, and what that costs.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "common/model.h"

namespace ravu::tools {

struct QuantiseOptions {
  std::string model;
  std::string output;
  double max_error = 0.2;
  bool json = false;
};

// Two series of values, the first of which is the measure. Relative: the root of the summed squares
// of the differences, divided by that of the values; a divisor below 1e-30 counts as 1e-30, so that
// zeros have an error too. Not a number as soon as one of the values is not.
struct Difference {
  double squares = 0;   // of the differences
  double measure = 0;   // squares of the values
  double greatest = 0;  // difference

  void add(const Blob& values, const Blob& others);
  double relative() const;
};

// A tensor that the file stores in 8 bits.
struct TensorError {
  std::size_t layer;  // in execution order
  std::string class_name;
  std::string output;  // of the layer
  std::string tensor;  // its key: "kernels", "bias", "weight"; "layers[1].kernels" in a group
  std::uint32_t values;
  double error;  // relative, of what the codec makes of it
  bool accepted;
};

// A Blob that the original and the quantised network compute.
struct OutputDifference {
  std::string name;
  std::uint32_t values;  // of one run
  double relative;
  double greatest;
};

struct QuantiseReport {
  std::string model;
  std::string output;
  double max_error;
  bool was_quantised;  // the original's values went through the codec before
  std::vector<TensorError> tensors;
  std::vector<OutputDifference> outputs;
  std::vector<std::string> restored_keys;  // of the root, which the engine's writer leaves out
  std::size_t dropped_records;             // of layers, which the engine does not load
  std::size_t bytes_before, bytes_after;
  bool written;
};

// The networks are run on this many seeded inputs.
inline constexpr unsigned kSeededInputs = 4;

// The finished root element with the keys of `original` that it lacks added behind its own, in
// their order; their names are added to `restored`.
FileImage restore_root_keys(FileImage root, const Tag& original,
                            std::vector<std::string>& restored);

// Quantises, reloads, compares and reports; writes the file unless a tensor's error is above the
// limit, and names those on standard error. Returns whether it was written. Throws Failure.
bool run_quantise(const QuantiseOptions& options);

}  // namespace ravu::tools
