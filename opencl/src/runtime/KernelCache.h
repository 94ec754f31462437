// Compiled kernels on disk, so that a second process does not compile again. An entry is found by
// device, driver, options and source; whatever is wrong with one, it is as if it were not there.
#pragma once

#include <filesystem>
#include <optional>
#include <string>
#include <vector>

namespace ravu::opencl {

class KernelCache {
 public:
  // An empty folder: nothing is kept.
  explicit KernelCache(std::filesystem::path folder) : folder_(std::move(folder)) {}

  // ravu/opencl in the user's cache folder: $XDG_CACHE_HOME, else $HOME/.cache, on Windows
  // %LOCALAPPDATA%. Empty where none of them is set.
  static std::filesystem::path users_folder();

  // The binary stored under a key, unless it is missing, damaged, another key's or others than the
  // user may have written it.
  std::optional<std::vector<unsigned char>> load(const std::string& key) const;
  // Replaces the entry in one step, so that readers and other writers never see half of it.
  // The folder, where it has to be made, and the entry are the user's alone. Failures are silent:
  // the next process compiles again.
  void store(const std::string& key, const std::vector<unsigned char>& binary) const;

  std::filesystem::path entry(const std::string& key) const;

 private:
  void replace(const std::string& key, const std::vector<unsigned char>& binary) const;

  std::filesystem::path folder_;
};

}  // namespace ravu::opencl
