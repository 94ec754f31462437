// What a load carries along: the network that is being built, and the first thing that went wrong.
// Whoever finds damage calls `fail` and goes on with harmless zeros; the loader looks at the end.
#pragma once

#include <string>
#include <string_view>

#include "graph/ravuGraph.h"

namespace ravu {

struct LoadState {
  Network* network = nullptr;
  bool quantised = false;  // "need_quant"
  bool failed = false;
  std::string reason;  // "layer 3 (conv): stride: the key is missing"
  std::string where;   // which record is being read, for the reason

  // Keeps the first reason; `key` may be empty when the rule concerns no single key.
  void fail(std::string_view key, std::string_view rule);
};

}  // namespace ravu
