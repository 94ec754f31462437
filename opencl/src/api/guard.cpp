// The last error's text lives in the thread and is replaced by its next failure only.
#include "api/guard.h"

namespace ravu::opencl {

namespace {

std::string& kept_text() {
  static thread_local std::string text;  // empty: nothing that could fail is done to make it
  return text;
}

}  // namespace

const char* last_error() noexcept {
  return kept_text().empty() ? "no error has occurred" : kept_text().c_str();
}

void keep_error(const char* text) noexcept {
  try {
    kept_text() = text;
  } catch (...) {  // no memory for the text: the older one stays
  }
}

}  // namespace ravu::opencl

const char* cldnn_get_last_error_message(void) {
  return ravu::opencl::last_error();
}
