// The one exception of the provider: a status for the caller and the text that explains it.
#pragma once

#include <cstdint>
#include <stdexcept>
#include <string>

namespace ravu::opencl {

struct Error : std::runtime_error {
  Error(int32_t error_status, const std::string& text)
      : std::runtime_error(text), status(error_status) {}
  int32_t status;
};

// General error, the status of nearly every failure.
[[noreturn]] void refuse(const std::string& text);
// A buffer that cannot be had, or would be empty.
[[noreturn]] void out_of_resources(const std::string& text);

}  // namespace ravu::opencl
