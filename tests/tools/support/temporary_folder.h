// An empty folder for what a test writes, removed with everything in it.
#pragma once

#include <filesystem>
#include <fstream>
#include <iterator>
#include <random>
#include <string>

#include "support/ModelBuilder.h"

namespace ravu::test {

class TemporaryFolder {
 public:
  TemporaryFolder()
      : path_(std::filesystem::temp_directory_path() /
              ("ravu_tools_" + std::to_string(std::random_device{}()))) {
    std::filesystem::create_directory(path_);
  }
  TemporaryFolder(const TemporaryFolder&) = delete;
  TemporaryFolder& operator=(const TemporaryFolder&) = delete;
  ~TemporaryFolder() { std::filesystem::remove_all(path_); }

  std::string file(const std::string& name) const { return (path_ / name).string(); }

  // Writes a file and returns its path.
  std::string put(const std::string& name, const Bytes& bytes) const {
    std::ofstream(file(name), std::ios::binary)
        .write(reinterpret_cast<const char*>(bytes.data()),
               static_cast<std::streamsize>(bytes.size()));
    return file(name);
  }

  Bytes get(const std::string& name) const {
    std::ifstream stream(file(name), std::ios::binary);
    return Bytes(std::istreambuf_iterator<char>(stream), {});
  }

  std::size_t entries() const {
    const std::filesystem::directory_iterator all(path_);
    return static_cast<std::size_t>(std::distance(begin(all), end(all)));
  }

 private:
  std::filesystem::path path_;
};

}  // namespace ravu::test
