// Libraries that are found when the engine runs, not when it is linked.
#pragma once

#include <string>

namespace ravu {

// A loaded library, or none. It is unloaded with the last holder of its handle, which the system
// counts, unless it was opened to stay.
class DynamicLibrary {
 public:
  enum class Lifetime { kUntilClosed, kWholeProcess };

  DynamicLibrary() = default;
  DynamicLibrary(const DynamicLibrary&) = delete;
  DynamicLibrary& operator=(const DynamicLibrary&) = delete;
  DynamicLibrary(DynamicLibrary&& other) noexcept : handle_(other.handle_) {
    other.handle_ = nullptr;
  }
  DynamicLibrary& operator=(DynamicLibrary&& other) noexcept;
  ~DynamicLibrary();

  // Loads a library by its path, or by a bare file name through the system's search. Where that
  // fails the result is none and `reason` is the system's text. A library whose threads outlive
  // its callers, as GPU drivers do, is opened for the whole process.
  static DynamicLibrary open(const std::string& name, std::string& reason,
                             Lifetime lifetime = Lifetime::kUntilClosed);

  explicit operator bool() const { return handle_ != nullptr; }

  // The function of this name; null when the library has none or is none.
  template <typename Function>
  Function* function(const char* name) const {
    return reinterpret_cast<Function*>(symbol(name));
  }

 private:
  void* symbol(const char* name) const;

  void* handle_ = nullptr;
};

// The path of the library or program that holds this address; empty when the system does not say.
std::string file_that_holds(const void* address);

// The folder of the library or program that holds the engine, with a closing separator; empty when
// the system does not say.
std::string own_folder();

}  // namespace ravu
