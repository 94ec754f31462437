// The subcommands that are written in Python and belong to the Python package `ravu`.
#pragma once

#include <string>
#include <vector>

namespace ravu::tools {

// Runs `python3 -m ravu NAME ARGUMENTS...` and returns its exit code. Throws Failure, with how to
// get the package, where python3 or the package is missing.
int run_python_command(const std::string& name, const std::vector<std::string>& arguments);

}  // namespace ravu::tools
