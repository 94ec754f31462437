// The status protocol of every exported function: the status is written, no exception gets out, and
// the text of a failure is kept for the thread.
#pragma once

#include <new>
#include <string>

#include "cldnn/cldnn.h"
#include "runtime/Error.h"

namespace ravu::opencl {

const char* last_error() noexcept;
void keep_error(const char* text) noexcept;

template <typename Function>
auto guarded(cldnn_status* status, Function&& function) -> decltype(function()) {
  cldnn_status ignored;
  cldnn_status& result = status == nullptr ? ignored : *status;
  result = CLDNN_SUCCESS;
  try {
    return function();
  } catch (const Error& error) {
    result = error.status;
    keep_error(error.what());
  } catch (const std::bad_alloc&) {
    result = CLDNN_OUT_OF_RESOURCES;
    keep_error("out of memory");
  } catch (const std::exception& error) {
    result = CLDNN_ERROR;
    keep_error(error.what());
  } catch (...) {
    result = CLDNN_ERROR;
    keep_error("unknown failure");
  }
  return decltype(function())();
}

// Refuses null handles; otherwise the object itself.
template <typename Object>
Object& checked(Object* handle, const char* what) {
  if (handle == nullptr) refuse(std::string("the ") + what + " is null");
  return *handle;
}

}  // namespace ravu::opencl
