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

// While it lives, the program finds no OpenCL device, whatever the machine has.
class NoOpenClDevices {
 public:
  NoOpenClDevices();
  NoOpenClDevices(const NoOpenClDevices&) = delete;
  NoOpenClDevices& operator=(const NoOpenClDevices&) = delete;
  ~NoOpenClDevices();
};

std::vector<std::string> lines_of(const std::string& text);

}  // namespace ravu::test
