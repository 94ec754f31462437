// The files that a run of the program reads, which it must never write to.
#pragma once

#include <set>
#include <string>
#include <vector>

namespace ravu::tools {

class InputFiles {
 public:
  InputFiles(const std::vector<std::string>& images, const std::string& model);

  // Whether writing to `path` would change one of them, through a link too.
  bool contains(const std::string& path) const;

  // Throws Failure when it would.
  void check_output(const std::string& path) const;

 private:
  std::vector<std::string> paths_;
  std::set<std::string> resolved_;
};

// A PNG file in `folder` for each image, named after it ("a/7.jpg" gives "7.png"). A name that is
// taken by an input, by the file `other` or by an image before it gets a number: "7-2.png".
std::vector<std::string> name_copies(const std::string& folder,
                                     const std::vector<std::string>& images,
                                     const InputFiles& inputs, const std::string& other);

}  // namespace ravu::tools
