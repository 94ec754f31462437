// How failures of the GPU run modes reach the caller.
#pragma once

#include <cstdint>
#include <stdexcept>
#include <string>

namespace cldnn {

// The one exception that leaves the engine. Its text is the failing operation, ": " and the reason;
// a host in another library catches it as std::runtime_error.
class error : public std::runtime_error {
 public:
  error(const std::string& text, std::int32_t status) : std::runtime_error(text), status_(status) {}
  std::int32_t status() const { return status_; }

 private:
  std::int32_t status_;
};

}  // namespace cldnn
