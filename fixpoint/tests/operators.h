// Operators behind their ordinals, released when they go.
#pragma once

#include <optional>
#include <utility>
#include <vector>

#include "fixpoint/fixpoint.h"
#include "reference.h"

extern "C" ravu::fixpoint::Function ravu_fixpoint_function(std::uint32_t ordinal);

namespace ravu::fixpoint::test {

template <class Type>
Type function(std::uint32_t ordinal) {
  return reinterpret_cast<Type>(ravu_fixpoint_function(ordinal));
}

class Holder {
 public:
  explicit Holder(Operator* op) : op_(op) {}
  Holder(const Holder&) = delete;
  Holder& operator=(const Holder&) = delete;
  ~Holder() { function<Destroy>(kDestroy)(op_); }
  operator Operator*() const { return op_; }  // NOLINT: it stands for the operator

 private:
  Operator* op_;
};

// A convolution, configured and finished from a case.
class Conv : public Holder {
 public:
  explicit Conv(const ConvCase& c, float weight_range = 64);
  bool usable() const { return usable_; }

  // The output for the case's input; none when a call is refused.
  std::optional<std::vector<float>> run(const ConvCase& c, float input_range = 127,
                                        float rounding = 0.5F) const;
  std::uint64_t executions() const { return function<Executions>(kExecutions)(*this); }
  bool set_threads(int threads) { return function<SetThreads>(kSetThreads)(*this, threads); }

 private:
  bool usable_;
};

bool configure(Operator* op, const ConvCase& c);
bool set_input(Operator* op, const ConvCase& c, float range = 127);

}  // namespace ravu::fixpoint::test
