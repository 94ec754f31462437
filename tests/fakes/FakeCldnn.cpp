// One line per call; the descriptors are written out by fake_descriptors.cpp.
#include "fakes/FakeCldnn.h"

#include <algorithm>
#include <cstring>
#include <memory>
#include <stdexcept>

#include "fakes/fake_descriptors.h"

namespace ravu::test {
namespace {

FakeCldnn* current = nullptr;

// Everything that is handed out. A memory has a layout and values.
struct Object {
  const char* kind;
  cldnn_layout layout{};
  std::vector<float> values = {};
};

Object* object(const void* handle) {
  return static_cast<Object*>(const_cast<void*>(handle));
}

template <class Handle>
Handle hand_out(const char* kind) {
  ++current->live;
  return reinterpret_cast<Handle>(new Object{kind});
}

void take_back(void* handle, const char* kind) {
  if (std::strcmp(object(handle)->kind, kind) != 0) throw std::logic_error("a handle is mixed up");
  delete object(handle);
  --current->live;
}

// Writes the line. False when this is the call that fails.
bool enter(cldnn_status* status, const std::string& line) {
  current->transcript.push_back(line);
  *status = current->calls++ == current->fail_at ? CLDNN_ERROR : CLDNN_SUCCESS;
  return *status == CLDNN_SUCCESS;
}

const char* last_error() {
  return "the fake refuses";
}

cldnn_engine create_engine(int32_t type, uint32_t number,
                           const cldnn_engine_configuration* configuration, cldnn_status* status) {
  const bool plain =
      configuration->enable_profiling == 0 && configuration->meaningful_kernel_names == 0 &&
      *configuration->compiler_options == 0 && *configuration->single_kernel_name == 0;
  const std::string line = "create_engine " + std::to_string(type) + " " + std::to_string(number) +
                           (plain ? "" : " with options");
  return enter(status, line) ? hand_out<cldnn_engine>("engine") : nullptr;
}

cldnn_topology create_topology(cldnn_status* status) {
  return enter(status, "create_topology") ? hand_out<cldnn_topology>("topology") : nullptr;
}

void add_primitive(cldnn_topology, const cldnn_primitive* descriptor, cldnn_status* status) {
  if (!enter(status, "add " + text_of(*descriptor))) return;
  if (kind_of(*descriptor) == cldnn::Kind::kData) {
    const auto* data = reinterpret_cast<const cldnn_data_desc*>(descriptor);
    current->uploaded[descriptor->id] = object(data->memory)->values;
  }
}

cldnn_program build_program(cldnn_engine, cldnn_topology, cldnn_build_option*, size_t options,
                            cldnn_status* status) {
  const std::string line = "build_program with " + std::to_string(options) + " options";
  return enter(status, line) ? hand_out<cldnn_program>("program") : nullptr;
}

cldnn_network allocate_network(cldnn_program, cldnn_status* status) {
  return enter(status, "allocate_network") ? hand_out<cldnn_network>("network") : nullptr;
}

void set_network_input(cldnn_network, cldnn_id id, cldnn_memory memory, cldnn_status* status) {
  if (!enter(status, std::string("set_network_input ") + id)) return;
  current->input = object(memory)->values;
  current->input_layout = object(memory)->layout;
}

void execute_network(cldnn_network, cldnn_event*, size_t events, cldnn_status* status) {
  enter(status, "execute_network after " + std::to_string(events) + " events");
}

void get_network_output_names(cldnn_network, char* names, size_t size, size_t* needed,
                              cldnn_status* status) {
  if (!enter(status, "get_network_output_names")) return;
  std::string text;
  // Last names first, so that the order is not the text's.
  for (auto it = current->results.rbegin(); it != current->results.rend(); ++it) {
    text += it->first + '\0';
  }
  text += '\0';
  *needed = text.size();
  if (size < text.size()) {
    *status = CLDNN_INVALID_ARG;
    return;
  }
  std::copy(text.begin(), text.end(), names);
}

cldnn_network_output get_network_output(cldnn_network, const char* name, cldnn_status* status) {
  if (!enter(status, std::string("get_network_output ") + name)) return {};
  const auto event = hand_out<cldnn_event>("event");
  const auto memory = hand_out<cldnn_memory>("memory");
  object(memory)->layout = current->results.at(name).layout;
  object(memory)->values = current->results.at(name).values;
  return {event, memory};
}

void wait_for_event(cldnn_event, cldnn_status* status) {
  enter(status, "wait_for_event");
}

cldnn_memory allocate_memory(cldnn_engine, cldnn_layout layout, cldnn_status* status) {
  if (!enter(status, "allocate_memory " + text_of(layout))) return nullptr;
  const auto memory = hand_out<cldnn_memory>("memory");
  std::size_t n = 1;
  for (const int32_t size : layout.size.sizes) n *= static_cast<std::size_t>(size);
  object(memory)->layout = layout;
  object(memory)->values.resize(n);
  return memory;
}

void* lock_memory(cldnn_memory memory, cldnn_status* status) {
  return enter(status, "lock_memory") ? object(memory)->values.data() : nullptr;
}

void unlock_memory(cldnn_memory, cldnn_status* status) {
  enter(status, "unlock_memory");
}

cldnn_layout get_memory_layout(cldnn_memory memory, cldnn_status* status) {
  return enter(status, "get_memory_layout") ? object(memory)->layout : cldnn_layout{};
}

// A release that fails has still given the reference back.
template <class Handle>
void release(Handle handle, const char* kind, cldnn_status* status) {
  enter(status, std::string("release_") + kind);
  take_back(handle, kind);
}

void release_engine(cldnn_engine handle, cldnn_status* s) {
  release(handle, "engine", s);
}
void release_topology(cldnn_topology handle, cldnn_status* s) {
  release(handle, "topology", s);
}
void release_program(cldnn_program handle, cldnn_status* s) {
  release(handle, "program", s);
}
void release_network(cldnn_network handle, cldnn_status* s) {
  release(handle, "network", s);
}
void release_event(cldnn_event handle, cldnn_status* s) {
  release(handle, "event", s);
}
void release_memory(cldnn_memory handle, cldnn_status* s) {
  release(handle, "memory", s);
}

// The type of a kind is a pointer to the kind's number.
template <std::size_t... kKinds>
void fill_type_ids(cldnn::Library& library, std::index_sequence<kKinds...>) {
  ((library.type_ids[kKinds] =
        [](cldnn_status* status) {
          const auto kind = static_cast<cldnn::Kind>(kKinds);
          const bool works = enter(status, std::string("type_id ") + cldnn::name_of(kind));
          return works ? type_of(kind) : nullptr;
        }),
   ...);
}

}  // namespace

FakeCldnn::FakeCldnn() {
  current = this;
}

FakeCldnn::~FakeCldnn() {
  current = nullptr;
}

cldnn::LibraryPtr FakeCldnn::library() {
  auto fake = std::make_shared<cldnn::Library>();
  fake->get_last_error_message = last_error;
  fake->create_engine = create_engine;
  fake->release_engine = release_engine;
  fake->create_topology = create_topology;
  fake->add_primitive = add_primitive;
  fake->release_topology = release_topology;
  fake->build_program = build_program;
  fake->release_program = release_program;
  fake->allocate_network = allocate_network;
  fake->release_network = release_network;
  fake->set_network_input = set_network_input;
  fake->execute_network = execute_network;
  fake->get_network_output_names = get_network_output_names;
  fake->get_network_output = get_network_output;
  fake->wait_for_event = wait_for_event;
  fake->release_event = release_event;
  fake->allocate_memory = allocate_memory;
  fake->lock_memory = lock_memory;
  fake->unlock_memory = unlock_memory;
  fake->get_memory_layout = get_memory_layout;
  fake->release_memory = release_memory;
  fill_type_ids(*fake, std::make_index_sequence<cldnn::kKindCount>());
  return fake;
}

void FakeCldnn::add_output(const std::string& name, const cldnn_layout& layout,
                           const std::vector<float>& values) {
  results[name] = {layout, values};
}

std::vector<std::string> FakeCldnn::lines(const std::vector<std::string>& first_words) const {
  std::vector<std::string> found;
  for (const std::string& line : transcript) {
    const std::string word = line.substr(0, line.find(' '));
    if (first_words.empty() ||
        std::find(first_words.begin(), first_words.end(), word) != first_words.end()) {
      found.push_back(line);
    }
  }
  return found;
}

std::vector<std::string> FakeCldnn::primitives() const {
  std::vector<std::string> found;
  for (const std::string& line : lines({"add"})) {
    const std::string text = line.substr(4);
    if (text.rfind("data ", 0) != 0 && text.rfind("input_layout ", 0) != 0) found.push_back(text);
  }
  return found;
}

const std::vector<float>& FakeCldnn::data(const std::string& name) const {
  const auto found = uploaded.find(name);
  if (found == uploaded.end()) throw std::out_of_range("no data primitive " + name);
  return found->second;
}

}  // namespace ravu::test
