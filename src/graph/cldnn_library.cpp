// All functions are looked up at once: a library that lacks one is refused as a whole.
#include "graph/cldnn_library.h"

#include "graph/cldnn_handles.h"

namespace cldnn {
namespace {

#ifdef _WIN32
constexpr const char* kClDnn = "clDNN64.dll";
constexpr const char* kProvider = "ravu_cldnn.dll";
#else
constexpr const char* kClDnn = "libclDNN64.so";
constexpr const char* kProvider = "libravu_cldnn.so";
#endif

constexpr std::array<const char*, kKindCount> kKindNames{
    "activation", "batch_norm",       "concatenation", "convolution",     "crop",
    "data",       "detection_output", "eltwise",       "fully_connected", "input_layout",
    "lrn",        "normalize",        "permute",       "pooling",         "prior_box",
    "reorder",    "reshape",          "scale",         "softmax",
};

// Looks functions up and remembers the first one that is missing.
struct Lookup {
  const ravu::DynamicLibrary& file;
  std::string missing;

  template <class Function>
  void find(const std::string& name, Function*& function) {
    function = file.function<Function>(name.c_str());
    if (function == nullptr && missing.empty()) missing = name;
  }

  bool has(const char* name) const { return file.function<void()>(name) != nullptr; }
};

void find_functions(Lookup& lookup, Library& l) {
  lookup.find("cldnn_get_last_error_message", l.get_last_error_message);
  lookup.find("cldnn_create_engine", l.create_engine);
  lookup.find("cldnn_release_engine", l.release_engine);
  lookup.find("cldnn_create_topology", l.create_topology);
  lookup.find("cldnn_add_primitive", l.add_primitive);
  lookup.find("cldnn_release_topology", l.release_topology);
  lookup.find("cldnn_build_program", l.build_program);
  lookup.find("cldnn_release_program", l.release_program);
  lookup.find("cldnn_allocate_network", l.allocate_network);
  lookup.find("cldnn_release_network", l.release_network);
  lookup.find("cldnn_set_network_input", l.set_network_input);
  lookup.find("cldnn_execute_network", l.execute_network);
  lookup.find("cldnn_get_network_output_names", l.get_network_output_names);
  lookup.find("cldnn_get_network_output", l.get_network_output);
  lookup.find("cldnn_wait_for_event", l.wait_for_event);
  lookup.find("cldnn_release_event", l.release_event);
  lookup.find("cldnn_allocate_memory", l.allocate_memory);
  lookup.find("cldnn_lock_memory", l.lock_memory);
  lookup.find("cldnn_unlock_memory", l.unlock_memory);
  lookup.find("cldnn_get_memory_layout", l.get_memory_layout);
  lookup.find("cldnn_release_memory", l.release_memory);
  for (std::size_t k = 0; k < kKindCount; ++k) {
    lookup.find(std::string("cldnn_") + kKindNames[k] + "_type_id", l.type_ids[k]);
  }
}

// Drop 1 has no proposal primitive; later drops have custom ones as well.
std::string why_not_drop_2(const Lookup& lookup) {
  if (!lookup.missing.empty()) return "is not clDNN's drop 2: has no " + lookup.missing;
  if (!lookup.has("cldnn_proposal_type_id")) {
    return "is not clDNN's drop 2 but an earlier one: has no cldnn_proposal_type_id";
  }
  if (lookup.has("cldnn_custom_gpu_primitive_type_id")) {
    return "is not clDNN's drop 2 but a later one: has cldnn_custom_gpu_primitive_type_id";
  }
  return {};
}

}  // namespace

const char* name_of(Kind kind) {
  return kKindNames[static_cast<std::size_t>(kind)];
}

std::vector<std::string> library_candidates() {
  std::vector<std::string> files{kClDnn};
  const std::string folder = ravu::own_folder();
  if (!folder.empty()) files.push_back(folder + kProvider);
  files.emplace_back(kProvider);
  return files;
}

LibraryPtr open_library(const std::string& file, std::string& reason) {
  auto library = std::make_shared<Library>();
  library->file =
      ravu::DynamicLibrary::open(file, reason, ravu::DynamicLibrary::Lifetime::kWholeProcess);
  if (!library->file) return nullptr;
  Lookup lookup{library->file, {}};
  find_functions(lookup, *library);
  const std::string wrong = why_not_drop_2(lookup);
  if (wrong.empty()) return library;
  reason = file + " " + wrong;
  return nullptr;
}

LibraryPtr load_library(const std::vector<std::string>& candidates) {
  std::string reasons;
  for (const std::string& file : candidates) {
    std::string reason;
    if (LibraryPtr library = open_library(file, reason)) return library;
    reasons += (reasons.empty() ? "" : "; ") + reason;
  }
  throw error(
      "failed to create engine: no library for the GPU run modes could be loaded: " + reasons,
      CLDNN_ERROR);
}

}  // namespace cldnn
