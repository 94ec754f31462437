// One model in several run modes, through the exported functions.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "support/handles.h"

namespace ravu::test {

// The values of the last layer's output after one run.
struct Result {
  Dims dims;
  std::vector<float> values;
};

// Loads a model, gives it an input of these dims, sets it up for the mode and runs it.
Result result_in(std::uint32_t mode, const Bytes& model, Dims input,
                 const std::vector<float>& values);

// Values between -1 and 1 for an input of these dims.
std::vector<float> input_for(Dims dims, unsigned seed);

// The largest difference, in parts of what the reference's values span. Infinite where the results
// have different sizes.
double distance(const Result& reference, const Result& result);

// How far two run modes may be apart.
inline constexpr double kTolerance = 1e-4;

// Runs the model in mode 0 and in both GPU modes, and expects the same results, which are not the
// same everywhere.
void expect_modes_agree(const ModelBuilder& model, Dims input, const std::string& what,
                        unsigned seed = 1);

}  // namespace ravu::test
