// Every call's status is looked at; the first refusal ends the run.
#include "support/Graph.h"

#include <gtest/gtest.h>

#include <algorithm>

namespace ravu::opencl::test {

namespace {

// Released before main returns: at the very end of a process OpenCL's own objects may be gone.
class Engines final : public testing::Environment {
 public:
  void TearDown() override {
    for (auto& [name, engine] : by_name) cldnn_release_engine(engine, nullptr);
    by_name.clear();
  }
  std::map<std::string, cldnn_engine> by_name;
};

Engines* const engines = static_cast<Engines*>(testing::AddGlobalTestEnvironment(new Engines));

}  // namespace

cldnn_engine shared_engine(const std::string& single_kernel) {
  cldnn_engine& engine = engines->by_name[single_kernel];
  if (engine == nullptr) {
    const cldnn_engine_configuration configuration = {0, 0, "", single_kernel.c_str()};
    cldnn_status status = CLDNN_SUCCESS;
    engine = cldnn_create_engine(CLDNN_ENGINE_OPENCL, 0, &configuration, &status);
    EXPECT_EQ(status, CLDNN_SUCCESS) << cldnn_get_last_error_message();
  }
  return engine;
}

cldnn_memory upload(cldnn_engine engine, const Values& values, int32_t format) {
  cldnn_status status = CLDNN_SUCCESS;
  cldnn_memory memory = cldnn_allocate_memory(engine, layout(values.dims, format), &status);
  EXPECT_EQ(status, CLDNN_SUCCESS) << cldnn_get_last_error_message();
  auto* floats = static_cast<float*>(cldnn_lock_memory(memory, &status));
  EXPECT_EQ(status, CLDNN_SUCCESS) << cldnn_get_last_error_message();
  const std::vector<float> ordered = to_memory(values, format);
  std::copy(ordered.begin(), ordered.end(), floats);
  cldnn_unlock_memory(memory, &status);
  EXPECT_EQ(status, CLDNN_SUCCESS) << cldnn_get_last_error_message();
  return memory;
}

cldnn_memory upload_elsewhere(const Values& values) {
  cldnn_status status = CLDNN_SUCCESS;
  cldnn_engine other = cldnn_create_engine(CLDNN_ENGINE_OPENCL, 0, nullptr, &status);
  EXPECT_EQ(status, CLDNN_SUCCESS) << cldnn_get_last_error_message();
  cldnn_memory memory = upload(other, values, CLDNN_FORMAT_YXFB);
  cldnn_release_engine(other, nullptr);
  return memory;
}

Values download(cldnn_memory memory) {
  cldnn_status status = CLDNN_SUCCESS;
  const cldnn_layout layout = cldnn_get_memory_layout(memory, &status);
  EXPECT_EQ(status, CLDNN_SUCCESS) << cldnn_get_last_error_message();
  const int32_t* sizes = layout.size.sizes;
  const Dims dims = {sizes[CLDNN_BATCH], sizes[CLDNN_FEATURE], sizes[CLDNN_Y], sizes[CLDNN_X]};
  const auto* floats = static_cast<const float*>(cldnn_lock_memory(memory, &status));
  EXPECT_EQ(status, CLDNN_SUCCESS) << cldnn_get_last_error_message();
  const size_t count = zeros(dims).data.size();
  const Values values = from_memory(dims, layout.format, {floats, floats + count});
  cldnn_unlock_memory(memory, &status);
  EXPECT_EQ(status, CLDNN_SUCCESS) << cldnn_get_last_error_message();
  return values;
}

Graph::~Graph() {
  release();
  if (topology_ != nullptr) cldnn_release_topology(topology_, nullptr);
  for (auto& [id, memory] : inputs_) cldnn_release_memory(memory, nullptr);
}

void Graph::release() {
  if (network_ != nullptr) cldnn_release_network(network_, nullptr);
  network_ = nullptr;
}

void Graph::fill(cldnn_primitive& header, cldnn_type_id (*type)(cldnn_status*), const char* id,
                 std::initializer_list<const char*> inputs) {
  header.type = type(&status_);
  EXPECT_EQ(status_, CLDNN_SUCCESS);
  header.id = id;
  lists_.emplace_back(inputs);
  header.input = {lists_.back().data(), lists_.back().size()};
}

cldnn_id_list Graph::ids(std::vector<std::string> names) {
  std::vector<const char*> pointers;
  for (std::string& name : names) pointers.push_back(texts_.emplace_back(std::move(name)).c_str());
  lists_.push_back(std::move(pointers));
  return {lists_.back().data(), lists_.back().size()};
}

bool Graph::failed() {
  if (status_ == CLDNN_SUCCESS) return false;
  text_ = cldnn_get_last_error_message();
  return true;
}

void Graph::add(const cldnn_primitive& descriptor) {
  if (!text_.empty()) return;
  if (topology_ == nullptr) topology_ = cldnn_create_topology(&status_);
  cldnn_add_primitive(topology_, &descriptor, &status_);
  failed();
}

void Graph::input(const char* id, const Values& values, int32_t format) {
  auto descriptor = describe<cldnn_input_layout_desc>(cldnn_input_layout_type_id, id, {});
  descriptor.layout = layout(values.dims, format);
  add(descriptor.header);
  inputs_[id] = upload(engine_, values, format);
}

void Graph::data(const char* id, const Values& values, int32_t format) {
  auto descriptor = describe<cldnn_data_desc>(cldnn_data_type_id, id, {});
  descriptor.memory = upload(engine_, values, format);
  add(descriptor.header);
  cldnn_release_memory(descriptor.memory, nullptr);
}

Stage Graph::run(std::vector<cldnn_build_option> options) {
  if (!text_.empty()) return Stage::kAdd;
  release();
  cldnn_program program =
      cldnn_build_program(engine_, topology_, options.data(), options.size(), &status_);
  if (failed()) return Stage::kBuild;
  network_ = cldnn_allocate_network(program, &status_);
  cldnn_release_program(program, nullptr);
  if (failed()) return Stage::kAllocate;
  for (auto& [id, memory] : inputs_) {
    cldnn_set_network_input(network_, id.c_str(), memory, &status_);
    if (failed()) return Stage::kSetInput;
  }
  cldnn_execute_network(network_, nullptr, 0, &status_);
  return failed() ? Stage::kExecute : Stage::kDone;
}

Values Graph::result(const char* id) {
  if (network_ == nullptr) {
    EXPECT_EQ(run(), Stage::kDone) << text_;
  }
  if (network_ == nullptr) return zeros({});
  const cldnn_network_output output = cldnn_get_network_output(network_, id, &status_);
  EXPECT_EQ(status_, CLDNN_SUCCESS) << cldnn_get_last_error_message();
  if (status_ != CLDNN_SUCCESS) return zeros({});
  cldnn_wait_for_event(output.event, &status_);
  EXPECT_EQ(status_, CLDNN_SUCCESS) << cldnn_get_last_error_message();
  Values values = download(output.memory);
  cldnn_release_event(output.event, nullptr);
  cldnn_release_memory(output.memory, nullptr);
  return values;
}

Values Graph::run_again(const char* id) {
  cldnn_execute_network(network_, nullptr, 0, &status_);
  EXPECT_EQ(status_, CLDNN_SUCCESS) << cldnn_get_last_error_message();
  return result(id);
}

cldnn_layout Graph::result_layout(const char* id) {
  result(id);
  const cldnn_network_output output = cldnn_get_network_output(network_, id, &status_);
  const cldnn_layout layout = cldnn_get_memory_layout(output.memory, &status_);
  cldnn_release_event(output.event, nullptr);
  cldnn_release_memory(output.memory, nullptr);
  return layout;
}

std::vector<std::string> Graph::output_names() {
  char buffer[4096];
  size_t needed = 0;
  cldnn_get_network_output_names(network_, buffer, sizeof(buffer), &needed, &status_);
  EXPECT_EQ(status_, CLDNN_SUCCESS) << cldnn_get_last_error_message();
  std::vector<std::string> names;
  for (const char* name = buffer; *name != '\0'; name += names.back().size() + 1) {
    names.emplace_back(name);
  }
  return names;
}

}  // namespace ravu::opencl::test
