#include "graph/dynamic_library.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <string>
#include <utility>

namespace ravu {
namespace {

// A library that every system of this kind has.
#ifdef _WIN32
constexpr const char* kSystemLibrary = "kernel32.dll";
constexpr const char* kSystemFunction = "GetTickCount";
#else
constexpr const char* kSystemLibrary = "libm.so.6";
constexpr const char* kSystemFunction = "cos";
#endif

TEST(DynamicLibrary, FindsALibraryThroughTheSystemsSearch) {
  std::string reason;
  const DynamicLibrary library = DynamicLibrary::open(kSystemLibrary, reason);
  ASSERT_TRUE(library) << reason;
  EXPECT_TRUE(reason.empty());
  EXPECT_NE(library.function<void()>(kSystemFunction), nullptr);
  EXPECT_EQ(library.function<void()>("ravu_has_no_such_function"), nullptr);
}

TEST(DynamicLibrary, SaysWhichLibraryIsMissing) {
  std::string reason;
  const DynamicLibrary library = DynamicLibrary::open("libravu_no_such_library.so", reason);
  EXPECT_FALSE(library);
  EXPECT_THAT(reason, testing::HasSubstr("libravu_no_such_library.so"));
  EXPECT_EQ(library.function<void()>(kSystemFunction), nullptr);
}

TEST(DynamicLibrary, MovesItsHandle) {
  std::string reason;
  DynamicLibrary first = DynamicLibrary::open(kSystemLibrary, reason);
  DynamicLibrary second = std::move(first);
  EXPECT_TRUE(second);
  DynamicLibrary third;
  third = std::move(second);
  EXPECT_NE(third.function<void()>(kSystemFunction), nullptr);
}

TEST(DynamicLibrary, KnowsWhichFileAFunctionComesFrom) {
  std::string reason;
  const DynamicLibrary library = DynamicLibrary::open(kSystemLibrary, reason);
  ASSERT_TRUE(library) << reason;
  const auto function = reinterpret_cast<const void*>(library.function<void()>(kSystemFunction));
  const std::string file = file_that_holds(function);
  EXPECT_THAT(file, testing::HasSubstr(kSystemLibrary));
  EXPECT_TRUE(std::filesystem::exists(file)) << file;
  EXPECT_EQ(file_that_holds(nullptr), "");
}

TEST(DynamicLibrary, KnowsTheFolderOfTheEngine) {
  const std::string folder = own_folder();
  ASSERT_FALSE(folder.empty());
  EXPECT_TRUE(std::filesystem::is_directory(folder)) << folder;
}

}  // namespace
}  // namespace ravu
