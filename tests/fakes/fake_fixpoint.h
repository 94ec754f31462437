// A stand-in for the fixed-point library that writes down every call as a line of text: the
// ordinal, the arguments in their order (operators are letters, arrays their values) and what came
// back.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "graph/fixed_point_library.h"

namespace ravu::test {

struct FakeFixpoint {
  std::vector<std::string> calls;
  std::uint32_t refused = 0;      // the ordinal that answers false or null
  int living = 0;                 // operators that were not destroyed
  const float* input = nullptr;   // what set input was last given
  const float* output = nullptr;  // what run was last given
};

// The one state of the fake; `reset_fake_fixpoint` empties it.
FakeFixpoint& fake_fixpoint();
void reset_fake_fixpoint();

// Finds the fake's functions by ordinal.
fixpoint::Function fake_fixpoint_function(std::uint32_t ordinal);

// The fake as the engine's layers get it. A run writes 1, 2, 3 ... into its output, plus 100 for
// every operator made before this one.
std::shared_ptr<const FixedPointLibrary> fake_fixed_point_library();

}  // namespace ravu::test
