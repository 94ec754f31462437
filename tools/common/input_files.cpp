// Paths are compared with their links resolved; files with several names by what they are.
#include "common/input_files.h"

#include <algorithm>
#include <filesystem>

#include "common/failure.h"

namespace ravu::tools {
namespace {

namespace fs = std::filesystem;

std::string resolved(const std::string& path) {
  std::error_code error;
  const fs::path absolute = fs::absolute(path, error);
  const fs::path canonical = fs::weakly_canonical(absolute, error);
  return error ? absolute.lexically_normal().string() : canonical.string();
}

}  // namespace

InputFiles::InputFiles(const std::vector<std::string>& images, const std::string& model)
    : paths_(images) {
  paths_.push_back(model);
  for (const std::string& path : paths_) resolved_.insert(resolved(path));
}

bool InputFiles::contains(const std::string& path) const {
  if (resolved_.count(resolved(path)) > 0) return true;
  std::error_code error;
  if (fs::hard_link_count(path, error) < 2 || error) return false;
  return std::any_of(paths_.begin(), paths_.end(), [&](const std::string& input) {
    return fs::equivalent(path, input, error) && !error;
  });
}

void InputFiles::check_output(const std::string& path) const {
  if (!path.empty() && contains(path)) throw Failure(path + ": is an input; it is not overwritten");
}

std::vector<std::string> name_copies(const std::string& folder,
                                     const std::vector<std::string>& images,
                                     const InputFiles& inputs, const std::string& other) {
  std::set<std::string> taken;
  if (!other.empty()) taken.insert(resolved(other));
  std::vector<std::string> copies;
  for (const std::string& image : images) {
    const std::string stem = fs::path(image).stem().string();
    std::string copy = (fs::path(folder) / (stem + ".png")).string();
    for (int n = 2; inputs.contains(copy) || taken.count(resolved(copy)) > 0; ++n) {
      copy = (fs::path(folder) / (stem + '-' + std::to_string(n) + ".png")).string();
    }
    taken.insert(resolved(copy));
    copies.push_back(copy);
  }
  return copies;
}

}  // namespace ravu::tools
