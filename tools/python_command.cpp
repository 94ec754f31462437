// The package is looked for first, so that its absence gives our own words and not Python's.
#include "python_command.h"

#ifdef _WIN32
#include <process.h>
#else
#include <spawn.h>
#include <sys/wait.h>

extern char** environ;
#endif

#include "common/failure.h"

namespace ravu::tools {
namespace {

constexpr const char* kPython = "python3";
constexpr const char* kLookForPackage =
    "import importlib.util as u, sys\n"
    "try: sys.exit(u.find_spec('ravu.convert') is None)\n"
    "except ImportError: sys.exit(1)";

// The exit code; below zero when the program could not be started, or did not end by itself.
int run_and_wait(const std::vector<std::string>& command) {
  std::vector<char*> arguments;
  for (const std::string& part : command) arguments.push_back(const_cast<char*>(part.c_str()));
  arguments.push_back(nullptr);
#ifdef _WIN32
  return static_cast<int>(_spawnvp(_P_WAIT, arguments[0], arguments.data()));
#else
  pid_t child = 0;
  if (posix_spawnp(&child, arguments[0], nullptr, nullptr, arguments.data(), environ) != 0) {
    return -1;
  }
  int status = 0;
  if (waitpid(child, &status, 0) != child || !WIFEXITED(status)) return -1;
  return WEXITSTATUS(status);
#endif
}

}  // namespace

int run_python_command(const std::string& name, const std::vector<std::string>& arguments) {
  if (run_and_wait({kPython, "-c", kLookForPackage}) != 0) {
    throw Failure(name +
                  " is written in Python, and python3 is missing or does not find the package ravu;"
                  " build its wheel with scripts/build_wheel.sh and install that:"
                  " python3 -m pip install 'ravu-....whl[convert]'");
  }
  std::vector<std::string> command{kPython, "-m", "ravu", name};
  command.insert(command.end(), arguments.begin(), arguments.end());
  const int code = run_and_wait(command);
  if (code < 0) throw Failure(name + ": python3 was ended");
  return code;
}

}  // namespace ravu::tools
