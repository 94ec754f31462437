// The system's loader behind one small class.
#include "graph/dynamic_library.h"

#include <utility>

#ifdef _WIN32
#include <windows.h>
#else
#include <dlfcn.h>
#endif

namespace ravu {
namespace {

// Any address inside the engine: the system is asked which file it comes from.
const char kAddressHere = 0;

std::string folder_of(const std::string& path) {
  const std::size_t separator = path.find_last_of("/\\");
  return separator == std::string::npos ? std::string() : path.substr(0, separator + 1);
}

}  // namespace

DynamicLibrary& DynamicLibrary::operator=(DynamicLibrary&& other) noexcept {
  std::swap(handle_, other.handle_);
  return *this;
}

#ifdef _WIN32

DynamicLibrary::~DynamicLibrary() {
  if (handle_ != nullptr) FreeLibrary(static_cast<HMODULE>(handle_));
}

DynamicLibrary DynamicLibrary::open(const std::string& name, std::string& reason,
                                    Lifetime lifetime) {
  DynamicLibrary library;
  HMODULE module = LoadLibraryA(name.c_str());
  if (module == nullptr) {
    reason = name + ": system error " + std::to_string(GetLastError());
    return library;
  }
  library.handle_ = module;
  if (lifetime == Lifetime::kWholeProcess) {
    HMODULE pinned = nullptr;
    GetModuleHandleExA(GET_MODULE_HANDLE_EX_FLAG_PIN | GET_MODULE_HANDLE_EX_FLAG_FROM_ADDRESS,
                       reinterpret_cast<const char*>(module), &pinned);
  }
  return library;
}

void* DynamicLibrary::symbol(const char* name) const {
  if (handle_ == nullptr) return nullptr;
  return reinterpret_cast<void*>(GetProcAddress(static_cast<HMODULE>(handle_), name));
}

std::string file_that_holds(const void* address) {
  HMODULE module = nullptr;
  if (!GetModuleHandleExA(
          GET_MODULE_HANDLE_EX_FLAG_FROM_ADDRESS | GET_MODULE_HANDLE_EX_FLAG_UNCHANGED_REFCOUNT,
          static_cast<const char*>(address), &module)) {
    return {};
  }
  char path[MAX_PATH];
  const DWORD length = GetModuleFileNameA(module, path, MAX_PATH);
  return std::string(path, length < MAX_PATH ? length : 0);
}

#else

DynamicLibrary::~DynamicLibrary() {
  if (handle_ != nullptr) dlclose(handle_);
}

DynamicLibrary DynamicLibrary::open(const std::string& name, std::string& reason,
                                    Lifetime lifetime) {
  const int stay = lifetime == Lifetime::kWholeProcess ? RTLD_NODELETE : 0;
  DynamicLibrary library;
  library.handle_ = dlopen(name.c_str(), RTLD_NOW | RTLD_LOCAL | stay);
  if (library.handle_ != nullptr) return library;
  const char* text = dlerror();
  reason = text != nullptr ? text : name + ": unknown error";
  return library;
}

void* DynamicLibrary::symbol(const char* name) const {
  return handle_ == nullptr ? nullptr : dlsym(handle_, name);
}

std::string file_that_holds(const void* address) {
  Dl_info info{};
  if (dladdr(address, &info) == 0 || info.dli_fname == nullptr) return {};
  return info.dli_fname;
}

#endif

std::string own_folder() {
  return folder_of(file_that_holds(&kAddressHere));
}

}  // namespace ravu
