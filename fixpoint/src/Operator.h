// What the two kinds of operators have in common: quantised weights, a number of threads, and the
// passes before and after the integer sums.
#pragma once

#include <cstdint>
#include <memory>
#include <span>
#include <vector>

#include "IntegerSums.h"
#include "fixpoint/fixpoint.h"
#include "quantise.h"

namespace ravu::fixpoint {

// Sizes out of range and calls out of order are refused with false. Out of memory and what oneDNN
// refuses are exceptions, which the exported functions turn into false.
struct Operator {
  virtual ~Operator() = default;

  bool set_threads(std::int32_t count);
  std::uint64_t executions() const { return sums_ ? sums_->executions() : 0; }

 protected:
  bool finished() const { return sums_ != nullptr; }

  // Quantises the weights. False for a range out of bounds, or when sums could pass 32 bits.
  bool quantise_weights_of(const KernelSizes& sizes, const float* weights, float range,
                           std::span<const float> bias);

  // The extent of values, found by all threads.
  Extent extent(const float* values, std::size_t n);

  // How many threads are worth it for so many floats to pass over, or products to add.
  int threads_for_floats(std::int64_t n) const;
  int threads_for_products(std::int64_t n) const;

  void compute(const ImageSizes& image, const std::uint8_t* bytes, bool signs, float* sums);

  // Turns n sums of an input with this step into floats, in place.
  void finish_sums(float* sums, std::size_t n, bool signs, float input_step);

 private:
  int threads_ = 1;
  std::unique_ptr<IntegerSums> sums_;
  std::vector<float> weight_steps_;       // as often as `steps_` has entries
  std::vector<std::int32_t> offsets_[2];  // of unsigned and of signed inputs
  Steps steps_;
  std::vector<Extent> extents_;
};

// Whether the number lies within the bounds; what is no number never does.
inline bool within(float value, float least, float greatest) {
  return value >= least && value <= greatest;
}

// The greatest size that an operator takes: every product of three sizes fits 64 bits.
inline constexpr std::int32_t kMaxSize = 1 << 20;
inline constexpr std::int64_t kMaxElements = 0x7FFFFFFF;

inline bool valid_size(std::int32_t size) {
  return size >= 1 && size <= kMaxSize;
}

}  // namespace ravu::fixpoint
