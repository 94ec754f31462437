// What can be done to a product's results before they are stored: the forms that primitives behind
// a convolution or a fully connected one can be brought into.
#pragma once

#include <cstddef>
#include <optional>

namespace ravu::opencl {

struct Epilogue {
  enum class Form {
    kNormalise,    // (value - first[unit]) / sqrt(second[unit] + number)
    kScale,        // value * first[unit] + second[unit]; one value for all units, or one each
    kRectify,      // slope `number`
    kRectifyEach,  // slope first[unit]
    kAdd,          // + first, shaped like the output; then rectified with slope `number`
  };
  Form form = Form::kRectify;
  float number = 1;
  // Positions in the primitive's inputs.
  std::optional<size_t> first;
  std::optional<size_t> second;
};

}  // namespace ravu::opencl
