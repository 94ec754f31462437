// Compiled kernels in the user's cache folder: written, used, replaced when they are damaged.
#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdint>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <thread>

#include "support/Graph.h"

namespace ravu::opencl::test {
namespace {

namespace fs = std::filesystem;

// A cache folder of its own for the time of a test. (The suite's one is put back afterwards.)
class KernelCacheTest : public testing::Test {
 protected:
  void SetUp() override {
    shared_engine();  // OpenCL drivers have caches too: they settle before the folder changes
    const char* set = getenv("XDG_CACHE_HOME");
    if (set != nullptr) before_ = set;
    base_ = fs::temp_directory_path() / ("ravu-kernel-cache-" + std::to_string(getpid()));
    fs::remove_all(base_);
    fs::create_directories(base_);
    setenv("XDG_CACHE_HOME", base_.c_str(), 1);
  }
  void TearDown() override {
    if (before_.empty()) {
      unsetenv("XDG_CACHE_HOME");
    } else {
      setenv("XDG_CACHE_HOME", before_.c_str(), 1);
    }
    fs::remove_all(base_);
  }

  // What a new engine computes, which has to get its kernel from somewhere.
  static std::vector<float> compute() {
    cldnn_status status = CLDNN_SUCCESS;
    cldnn_engine engine = cldnn_create_engine(CLDNN_ENGINE_OPENCL, 0, nullptr, &status);
    std::vector<float> result;
    {
      Graph graph(engine);
      graph.input("in", along_x({1, -2}));
      auto desc = graph.describe<cldnn_activation_desc>(cldnn_activation_type_id, "out", {"in"});
      desc.negative_slope = 0.5f;
      desc.slope_input = "";
      graph.add(desc.header);
      result = graph.result("out").data;
    }
    cldnn_release_engine(engine, nullptr);
    return result;
  }

  fs::path folder() const { return base_ / "ravu" / "opencl"; }
  std::vector<fs::path> entries() const {
    std::vector<fs::path> found;
    if (!fs::exists(folder())) return found;
    for (const auto& entry : fs::directory_iterator(folder())) found.push_back(entry.path());
    return found;
  }

  const std::vector<float> expected_ = {1, -1};
  fs::path base_;

 private:
  std::string before_;
};

std::string content(const fs::path& path) {
  std::ifstream file(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(file), {}};
}

void replace(const fs::path& path, const std::string& with) {
  std::ofstream(path, std::ios::binary | std::ios::trunc) << with;
}

TEST_F(KernelCacheTest, IsFilledAtFirstUseAndLeavesNothingElseBehind) {
  EXPECT_EQ(compute(), expected_);
  ASSERT_EQ(entries().size(), 1u);
  EXPECT_EQ(entries()[0].extension(), ".bin");
  const auto written = fs::last_write_time(entries()[0]);
  EXPECT_EQ(compute(), expected_);
  EXPECT_EQ(fs::last_write_time(entries()[0]), written);
}

TEST_F(KernelCacheTest, DamagedEntriesAreIgnoredAndReplaced) {
  compute();
  const fs::path entry = entries().at(0);
  const std::string good = content(entry);
  std::string flipped = good;
  flipped[flipped.size() / 2] ^= 1;
  std::string huge_sizes = good;
  for (size_t i = 8; i < 24; ++i) huge_sizes[i] = '\xff';
  for (const std::string& damaged :
       {std::string(), good.substr(0, 20), good.substr(0, 40), good.substr(0, good.size() - 1),
        good + "x", flipped, huge_sizes, std::string("something else")}) {
    replace(entry, damaged);
    EXPECT_EQ(compute(), expected_);
    EXPECT_EQ(content(entry).size(), good.size());
    EXPECT_NE(content(entry), damaged);
  }
}

// Read as it says, it would not fit into memory.
TEST_F(KernelCacheTest, AnEntryThatIsFarTooLargeIsNotReadIntoMemory) {
  compute();
  const fs::path entry = entries().at(0);
  const std::string good = content(entry);
  std::uint64_t key_size = 0;
  std::memcpy(&key_size, good.data() + 8, sizeof(key_size));
  const std::uint64_t binary_size = std::uint64_t{1} << 40;
  std::string damaged = good.substr(0, 32);
  std::memcpy(damaged.data() + 16, &binary_size, sizeof(binary_size));
  replace(entry, damaged);
  fs::resize_file(entry, 32 + key_size + binary_size);
  EXPECT_EQ(compute(), expected_);
  EXPECT_EQ(content(entry).size(), good.size());
}

TEST_F(KernelCacheTest, FolderAndEntriesAreTheUsersAloneWhateverTheProcessAllows) {
  const mode_t before = umask(0);
  EXPECT_EQ(compute(), expected_);
  umask(before);
  const fs::perms others = fs::perms::group_all | fs::perms::others_all;
  EXPECT_EQ(fs::status(folder()).permissions() & others, fs::perms::none);
  EXPECT_EQ(fs::status(entries().at(0)).permissions() & others, fs::perms::none);
}

TEST_F(KernelCacheTest, EntriesThatOthersMayWriteAreIgnoredAndReplaced) {
  compute();
  const fs::path entry = entries().at(0);
  for (const fs::perms writer : {fs::perms::group_write, fs::perms::others_write}) {
    fs::permissions(entry, writer, fs::perm_options::add);
    EXPECT_EQ(compute(), expected_);
    EXPECT_EQ(fs::status(entry).permissions() & writer, fs::perms::none);
  }
}

// A pipe that nobody writes to would be waited for.
TEST_F(KernelCacheTest, WhatIsNoFileIsIgnoredAndReplaced) {
  compute();
  const fs::path entry = entries().at(0);
  fs::remove(entry);
  ASSERT_EQ(mkfifo(entry.c_str(), 0600), 0);
  EXPECT_EQ(compute(), expected_);
  EXPECT_TRUE(fs::is_regular_file(entry));
}

TEST_F(KernelCacheTest, SeveralWritersAtOnceLeaveOneWholeEntry) {
  std::vector<std::thread> threads;
  for (int i = 0; i < 4; ++i) {
    threads.emplace_back([this] { EXPECT_EQ(compute(), expected_); });
  }
  for (std::thread& thread : threads) thread.join();
  ASSERT_EQ(entries().size(), 1u);
  const auto written = fs::last_write_time(entries()[0]);
  EXPECT_EQ(compute(), expected_);
  EXPECT_EQ(fs::last_write_time(entries()[0]), written);  // it was good enough to be used
}

TEST_F(KernelCacheTest, AFolderThatCannotBeWrittenIsDoneWithout) {
  replace(base_ / "ravu", "a file where the folder should be");
  EXPECT_EQ(compute(), expected_);
}

TEST_F(KernelCacheTest, WithoutAnyCacheFolderKernelsAreCompiledEachTime) {
  setenv("XDG_CACHE_HOME", "relative/path", 1);
  const char* home = getenv("HOME");
  const std::string kept = home == nullptr ? "" : home;
  unsetenv("HOME");
  EXPECT_EQ(compute(), expected_);
  if (home != nullptr) setenv("HOME", kept.c_str(), 1);
  EXPECT_TRUE(entries().empty());
}

}  // namespace
}  // namespace ravu::opencl::test
