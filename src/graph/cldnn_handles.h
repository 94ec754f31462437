// How failures of the GPU run modes reach the caller, and what releases clDNN's objects.
#pragma once

#include <cstdint>
#include <stdexcept>
#include <string>
#include <type_traits>
#include <utility>

#include "cldnn/cldnn.h"
#include "graph/cldnn_library.h"

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

[[noreturn]] void raise_error(const Library& library, const std::string& message,
                              cldnn_status status);

// Makes one call of clDNN, call(&status), and raises cldnn::error when it fails: the message, ": ",
// and clDNN's text.
template <class Call>
auto check_status(const Library& library, const std::string& message, Call call) {
  cldnn_status status = CLDNN_SUCCESS;
  if constexpr (std::is_void_v<decltype(call(&status))>) {
    call(&status);
    if (status != CLDNN_SUCCESS) raise_error(library, message, status);
  } else {
    auto result = call(&status);
    if (status != CLDNN_SUCCESS) raise_error(library, message, status);
    return result;
  }
}

// Owns one reference to an object of clDNN, or nothing. The library must outlive it.
template <class Handle>
class Holder {
 public:
  using Release = void (*)(Handle, cldnn_status*);

  Holder() = default;
  Holder(const Library& library, Release function, const char* message, Handle handle)
      : library_(&library), function_(function), message_(message), handle_(handle) {}
  Holder(const Holder&) = delete;
  Holder& operator=(const Holder&) = delete;
  Holder(Holder&& other) noexcept { swap(other); }
  Holder& operator=(Holder&& other) noexcept {
    swap(other);
    return *this;
  }

  // A release that fails here, on the way out of another failure, ends the process.
  ~Holder() { release(); }

  // Gives the reference back now. Raises cldnn::error when clDNN refuses; the holder is empty then
  // as well.
  void release() {
    if (handle_ == nullptr) return;
    Handle handle = std::exchange(handle_, nullptr);
    check_status(*library_, message_, [&](cldnn_status* status) { function_(handle, status); });
  }

  Handle get() const { return handle_; }
  explicit operator bool() const { return handle_ != nullptr; }

 private:
  void swap(Holder& other) noexcept {
    std::swap(library_, other.library_);
    std::swap(function_, other.function_);
    std::swap(message_, other.message_);
    std::swap(handle_, other.handle_);
  }

  const Library* library_ = nullptr;
  Release function_ = nullptr;
  const char* message_ = "";
  Handle handle_ = nullptr;
};

using Engine = Holder<cldnn_engine>;
using Topology = Holder<cldnn_topology>;
using Program = Holder<cldnn_program>;
using GpuNetwork = Holder<cldnn_network>;
using Memory = Holder<cldnn_memory>;
using Event = Holder<cldnn_event>;

Engine create_engine(const Library& library);
Topology create_topology(const Library& library);
Program build_program(const Library& library, const Engine& engine, const Topology& topology);
GpuNetwork allocate_network(const Library& library, const Program& program);
Memory allocate_memory(const Library& library, cldnn_engine engine, const cldnn_layout& layout);

struct Output {
  Event event;
  Memory memory;
};
Output get_output(const Library& library, const GpuNetwork& network, const std::string& name);

// Elements that a memory of this layout has; anything beyond what a Blob may have is one more than
// that.
std::size_t element_count(const cldnn_layout& layout);

// A memory's floats, shared with the processor until it is unlocked.
class LockedMemory {
 public:
  LockedMemory(const Library& library, const Memory& memory);
  LockedMemory(const LockedMemory&) = delete;
  LockedMemory& operator=(const LockedMemory&) = delete;
  ~LockedMemory() { unlock(); }

  // Raises cldnn::error when clDNN refuses.
  void unlock();

  float* data() const { return data_; }
  std::size_t size() const { return element_count(layout_); }
  const cldnn_layout& layout() const { return layout_; }

 private:
  const Library& library_;
  cldnn_memory memory_;
  cldnn_layout layout_;
  float* data_ = nullptr;
};

}  // namespace cldnn
