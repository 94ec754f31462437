// The network calls.
#include <cstring>

#include "api/guard.h"
#include "objects/Network.h"

using namespace ravu::opencl;

namespace {

void write_names(const std::vector<std::string>& names, char* buffer, size_t size, size_t& needed) {
  needed = 1;
  for (const std::string& name : names) needed += name.size() + 1;
  if (buffer == nullptr || size < needed) {
    throw Error(CLDNN_INVALID_ARG, "the buffer for output names is too small");
  }
  for (const std::string& name : names) {
    std::memcpy(buffer, name.c_str(), name.size() + 1);
    buffer += name.size() + 1;
  }
  *buffer = '\0';
}

}  // namespace

cldnn_network cldnn_allocate_network(cldnn_program program, cldnn_status* status) {
  return guarded(status,
                 [&]() -> cldnn_network { return new Network(&checked(program, "program")); });
}

void cldnn_retain_network(cldnn_network network, cldnn_status* status) {
  guarded(status, [&] { checked(network, "network").retain(); });
}

void cldnn_release_network(cldnn_network network, cldnn_status* status) {
  guarded(status, [&] { checked(network, "network").release(); });
}

void cldnn_set_network_input(cldnn_network network, cldnn_id id, cldnn_memory memory,
                             cldnn_status* status) {
  guarded(status,
          [&] { checked(network, "network").set_input(&checked(id, "input's name"), memory); });
}

void cldnn_execute_network(cldnn_network network, cldnn_event* dependencies,
                           size_t dependency_count, cldnn_status* status) {
  guarded(status, [&] {
    Network& runnable = checked(network, "network");
    if (dependencies == nullptr && dependency_count > 0) refuse("the list of events is null");
    for (size_t i = 0; i < dependency_count; ++i) {
      auto* event = checked(dependencies[i], "event").event.get();
      if (event != nullptr) runnable.program->engine->queue.wait_unless_own(event);
    }
    runnable.execute();
  });
}

void cldnn_get_network_output_names(cldnn_network network, char* names, size_t size, size_t* needed,
                                    cldnn_status* status) {
  guarded(status, [&] {
    const std::vector<std::string> outputs = checked(network, "network").output_names();
    if (outputs.empty()) refuse("the network has no outputs");
    size_t ignored = 0;
    write_names(outputs, names, size, needed == nullptr ? ignored : *needed);
  });
}

cldnn_network_output cldnn_get_network_output(cldnn_network network, const char* name,
                                              cldnn_status* status) {
  return guarded(status, [&]() -> cldnn_network_output {
    const Network& executed = checked(network, "network");
    Ref<Memory> memory = executed.output(&checked(name, "output's name"));
    Ref<Event> event = executed.event();
    return {event.detach(), memory.detach()};
  });
}
