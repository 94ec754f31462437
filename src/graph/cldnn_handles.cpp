// Every call that hands out an object, wrapped into its holder at once.
#include "graph/cldnn_handles.h"

#include <algorithm>

#include "graph/Blob.h"

namespace cldnn {
namespace {

// Kept: releasing a topology, a program or a network reports what retaining a topology does.
constexpr const char* kReleaseGraph = "retain topology failed";

Memory hold_memory(const Library& l, cldnn_memory memory) {
  return {l, l.release_memory, "release memory failed", memory};
}

}  // namespace

void raise_error(const Library& library, const std::string& message, cldnn_status status) {
  const char* text = library.get_last_error_message();
  throw error(message + ": " + (text == nullptr ? "" : text), status);
}

Engine create_engine(const Library& l) {
  const cldnn_engine_configuration configuration{0, 0, "", ""};
  cldnn_engine engine = check_status(l, "failed to create engine", [&](cldnn_status* status) {
    return l.create_engine(CLDNN_ENGINE_OPENCL, 0, &configuration, status);
  });
  return {l, l.release_engine, "release engine failed", engine};
}

Topology create_topology(const Library& l) {
  cldnn_topology topology = check_status(l, "failed to create topology", [&](cldnn_status* status) {
    return l.create_topology(status);
  });
  return {l, l.release_topology, kReleaseGraph, topology};
}

Program build_program(const Library& l, const Engine& engine, const Topology& topology) {
  cldnn_program program = check_status(l, "program creation failed", [&](cldnn_status* status) {
    return l.build_program(engine.get(), topology.get(), nullptr, 0, status);
  });
  return {l, l.release_program, kReleaseGraph, program};
}

GpuNetwork allocate_network(const Library& l, const Program& program) {
  cldnn_network network = check_status(l, "network allocation failed", [&](cldnn_status* status) {
    return l.allocate_network(program.get(), status);
  });
  return {l, l.release_network, kReleaseGraph, network};
}

Memory allocate_memory(const Library& l, cldnn_engine engine, const cldnn_layout& layout) {
  const std::size_t count = element_count(layout);
  if (count == 0) throw error("size should be more than 0", CLDNN_ERROR);
  if (count > ravu::kMaxCount) {
    throw error("memory allocation failed: more elements than a Blob may have",
                CLDNN_OUT_OF_RESOURCES);
  }
  return hold_memory(l, check_status(l, "memory allocation failed", [&](cldnn_status* status) {
                       return l.allocate_memory(engine, layout, status);
                     }));
}

Output get_output(const Library& l, const GpuNetwork& network, const std::string& name) {
  const auto output = check_status(l, "get network output failed", [&](cldnn_status* status) {
    return l.get_network_output(network.get(), name.c_str(), status);
  });
  return {{l, l.release_event, "retain event failed", output.event}, hold_memory(l, output.memory)};
}

std::size_t element_count(const cldnn_layout& layout) {
  constexpr std::size_t kTooMany = std::size_t{ravu::kMaxCount} + 1;
  std::size_t count = 1;
  for (const std::int32_t size : layout.size.sizes) {
    if (size <= 0) return 0;
    count = std::min(count * static_cast<std::size_t>(size), kTooMany);
  }
  return count;
}

LockedMemory::LockedMemory(const Library& l, const Memory& memory)
    : library_(l), memory_(memory.get()) {
  layout_ = check_status(l, "get memory layout failed", [&](cldnn_status* status) {
    return l.get_memory_layout(memory_, status);
  });
  if (layout_.data_type != CLDNN_FLOAT32) {
    throw error("memory data type alignment do not match", CLDNN_ERROR);
  }
  data_ = static_cast<float*>(check_status(l, "memory lock failed", [&](cldnn_status* status) {
    return l.lock_memory(memory_, status);
  }));
}

void LockedMemory::unlock() {
  if (std::exchange(data_, nullptr) == nullptr) return;
  check_status(library_, "memory unlock failed",
               [&](cldnn_status* status) { library_.unlock_memory(memory_, status); });
}

}  // namespace cldnn
