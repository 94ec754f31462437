// What a piece of code prints.
#pragma once

#include <gtest/gtest.h>

#include <string>

namespace ravu::test {

template <class Work>
std::string captured_stdout(Work work) {
  testing::internal::CaptureStdout();
  work();
  return testing::internal::GetCapturedStdout();
}

template <class Work>
std::string captured_stderr(Work work) {
  testing::internal::CaptureStderr();
  work();
  return testing::internal::GetCapturedStderr();
}

inline constexpr const char* kNotEnoughBytes =
    "Tova get_tag_from_memory() not enough bytes remaining\n";

}  // namespace ravu::test
