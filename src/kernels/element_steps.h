// What layers do to each element by itself, as data: a step. Kernels that produce an array run the
// steps of the layers behind them while the values are still in registers.
#pragma once

#include <array>
#include <cstddef>

namespace ravu::kernels {

class Workers;

// The parameters are arrays of one value for each channel.
struct ElementStep {
  enum class Kind {
    kRelu,           // x * slope where that is greater than x, else x
    kPRelu,          // min(x, 0) * first + max(x, 0)
    kNormalise,      // (x - first) * second
    kScale,          // x * first
    kScaleAndShift,  // x * first + second, rounded after each of the two
  };

  Kind kind = Kind::kRelu;
  float slope = 0.0F;
  const float* first = nullptr;
  const float* second = nullptr;
  std::size_t period = 0;  // channels that the parameters are for; 0: there are none
};

// Steps that are done one after another. Fused or each in a pass of its own, they give the same
// bits.
class ElementSteps {
 public:
  static constexpr std::size_t kMost = 4;

  bool full() const { return size_ == kMost; }
  bool empty() const { return size_ == 0; }
  void add(const ElementStep& step) { steps_[size_++] = step; }

  const ElementStep* begin() const { return steps_.data(); }
  const ElementStep* end() const { return steps_.data() + size_; }
  ElementStep* begin() { return steps_.data(); }
  ElementStep* end() { return steps_.data() + size_; }

  // The same steps, with the parameters from this channel on.
  ElementSteps from_channel(std::size_t channel) const;

 private:
  std::array<ElementStep, kMost> steps_;
  std::size_t size_ = 0;
};

// output[i] = what the steps make of input[i]; i < n. Element i meets the parameters i mod period;
// all steps have this period or none, and no more than n parameters are read. Input and output may
// be the same array. The result does not depend on the number of threads.
void apply_steps(const ElementSteps& steps, std::size_t period, const float* input, float* output,
                 std::size_t n, Workers& workers);

// The same in place, by the caller alone, for `rows` rows of `width` floats that start `stride`
// floats apart. Each row begins with the first channel.
void apply_steps_to_rows(const ElementSteps& steps, float* first_row, std::size_t rows,
                         std::size_t width, std::size_t stride);

}  // namespace ravu::kernels
