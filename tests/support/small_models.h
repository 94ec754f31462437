// Small models of several kinds, for tests that damage models and for the fuzzer's first corpus.
#pragma once

#include <vector>

#include "support/ModelBuilder.h"

namespace ravu::test {

struct SmallModel {
  const char* name;
  Bytes bytes;
};

// Every model loads and runs as it is. A new layer class adds a model here.
std::vector<SmallModel> small_models();

}  // namespace ravu::test
