// The program's two streams go to files, so that neither can fill a pipe while the other is read.
#include "support/program.h"

#include <sys/wait.h>

#include <cstdlib>
#include <fstream>
#include <iterator>
#include <sstream>

#include "support/ModelBuilder.h"

namespace ravu::test {
namespace {

std::string quoted(const std::string& text) {
  std::string result = "'";
  for (const char c : text) result += c == '\'' ? std::string("'\\''") : std::string(1, c);
  return result + '\'';
}

std::string content_of(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(file), {}};
}

}  // namespace

Outcome run_ravu(const std::vector<std::string>& arguments, const std::string& redirect) {
  const TemporaryFile out({});
  const TemporaryFile err({});
  std::string command = quoted(RAVU_PROGRAM);
  for (const std::string& argument : arguments) command += ' ' + quoted(argument);
  command += " > " + quoted(redirect.empty() ? out.path() : redirect);
  command += " 2> " + quoted(err.path());
  const int status = std::system(command.c_str());
  Outcome outcome;
  if (WIFEXITED(status)) outcome.code = WEXITSTATUS(status);
  outcome.out = content_of(out.path());
  outcome.err = content_of(err.path());
  return outcome;
}

// The loader of OpenCL looks for its drivers in this folder.
NoOpenClDevices::NoOpenClDevices() {
  setenv("OCL_ICD_VENDORS", "/nonexistent", /*overwrite=*/1);
}

NoOpenClDevices::~NoOpenClDevices() {
  unsetenv("OCL_ICD_VENDORS");
}

std::vector<std::string> lines_of(const std::string& text) {
  std::vector<std::string> lines;
  std::istringstream stream(text);
  for (std::string line; std::getline(stream, line);) lines.push_back(line);
  return lines;
}

}  // namespace ravu::test
