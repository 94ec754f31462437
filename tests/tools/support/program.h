// Runs the ravu program as its users do.
#pragma once

#include <string>
#include <vector>

namespace ravu::test {

struct Outcome {
  int code = -1;  // exit code; -1 when the program was ended by a signal
  std::string out;
  std::string err;
};

// With these arguments; `out` is empty when standard output is sent to the file `redirect`.
Outcome run_ravu(const std::vector<std::string>& arguments, const std::string& redirect = {});

std::vector<std::string> lines_of(const std::string& text);

}  // namespace ravu::test
