// How the program's own functions say that something cannot be done: one line for people, which
// main prints before it returns 1.
#pragma once

#include <stdexcept>

namespace ravu::tools {

struct Failure : std::runtime_error {
  using std::runtime_error::runtime_error;
};

}  // namespace ravu::tools
