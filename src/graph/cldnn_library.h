// clDNN, found when the engine runs: its functions under their own names.
#pragma once

#include <array>
#include <cstddef>
#include <memory>
#include <string>
#include <vector>

#include "cldnn/cldnn.h"
#include "graph/dynamic_library.h"

namespace cldnn {

// The kinds of primitives that the engine adds.
enum class Kind {
  kActivation,
  kBatchNorm,
  kConcatenation,
  kConvolution,
  kCrop,
  kData,
  kDetectionOutput,
  kEltwise,
  kFullyConnected,
  kInputLayout,
  kLrn,
  kNormalize,
  kPermute,
  kPooling,
  kPriorBox,
  kReorder,
  kReshape,
  kScale,
  kSoftmax,
};
inline constexpr std::size_t kKindCount = 19;

// The kind's name as the functions bear it: "fully_connected".
const char* name_of(Kind kind);

struct Library {
  ravu::DynamicLibrary file;  // none where the functions were filled in by hand

  decltype(&cldnn_get_last_error_message) get_last_error_message = nullptr;
  decltype(&cldnn_create_engine) create_engine = nullptr;
  decltype(&cldnn_release_engine) release_engine = nullptr;
  decltype(&cldnn_create_topology) create_topology = nullptr;
  decltype(&cldnn_add_primitive) add_primitive = nullptr;
  decltype(&cldnn_release_topology) release_topology = nullptr;
  decltype(&cldnn_build_program) build_program = nullptr;
  decltype(&cldnn_release_program) release_program = nullptr;
  decltype(&cldnn_allocate_network) allocate_network = nullptr;
  decltype(&cldnn_release_network) release_network = nullptr;
  decltype(&cldnn_set_network_input) set_network_input = nullptr;
  decltype(&cldnn_execute_network) execute_network = nullptr;
  decltype(&cldnn_get_network_output_names) get_network_output_names = nullptr;
  decltype(&cldnn_get_network_output) get_network_output = nullptr;
  decltype(&cldnn_wait_for_event) wait_for_event = nullptr;
  decltype(&cldnn_release_event) release_event = nullptr;
  decltype(&cldnn_allocate_memory) allocate_memory = nullptr;
  decltype(&cldnn_lock_memory) lock_memory = nullptr;
  decltype(&cldnn_unlock_memory) unlock_memory = nullptr;
  decltype(&cldnn_get_memory_layout) get_memory_layout = nullptr;
  decltype(&cldnn_release_memory) release_memory = nullptr;
  std::array<decltype(&cldnn_data_type_id), kKindCount> type_ids{};  // by Kind

  decltype(&cldnn_data_type_id) type_id(Kind kind) const {
    return type_ids[static_cast<std::size_t>(kind)];
  }
};

using LibraryPtr = std::shared_ptr<const Library>;

// The files that hold clDNN's interface, best first: clDNN itself through the system's search, then
// the provider that comes with the engine, beside it and through the search.
std::vector<std::string> library_candidates();

// The library in this file; null, and `reason` says why, when it cannot be loaded or is not drop 2:
// the drops before and after it have other records under the same function names. A loaded library
// stays until the process ends, since GPU drivers leave threads running.
LibraryPtr open_library(const std::string& file, std::string& reason);

// The first candidate that opens. Raises cldnn::error, with what was looked for and why each one
// failed, when none does.
LibraryPtr load_library(const std::vector<std::string>& candidates);

}  // namespace cldnn
