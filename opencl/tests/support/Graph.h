// A topology under construction and what becomes of it: adds descriptors, runs, fetches results, or
// says at which stage it was refused.
#pragma once

#include <deque>
#include <initializer_list>
#include <map>
#include <string>
#include <vector>

#include "cldnn/cldnn.h"
#include "support/Values.h"

namespace ravu::opencl::test {

enum class Stage { kAdd, kBuild, kAllocate, kSetInput, kExecute, kDone };

// One engine for all tests: kernels compile once. "product_local" chooses the products of GPUs.
cldnn_engine shared_engine(const std::string& single_kernel = "");

cldnn_memory upload(cldnn_engine engine, const Values& values, int32_t format);
// The same in an engine of its own, which lives as long as the memory.
cldnn_memory upload_elsewhere(const Values& values);
Values download(cldnn_memory memory);

class Graph {
 public:
  explicit Graph(cldnn_engine engine = shared_engine()) : engine_(engine) {}
  Graph(const Graph&) = delete;
  Graph& operator=(const Graph&) = delete;
  ~Graph();

  // A zeroed descriptor with type, id and inputs; its lists live as long as the graph.
  template <typename Descriptor>
  Descriptor describe(cldnn_type_id (*type)(cldnn_status*), const char* id,
                      std::initializer_list<const char*> inputs) {
    Descriptor descriptor{};
    fill(descriptor.header, type, id, inputs);
    return descriptor;
  }
  cldnn_id_list ids(std::vector<std::string> names);

  void add(const cldnn_primitive& descriptor);
  void input(const char* id, const Values& values, int32_t format = CLDNN_FORMAT_YXFB);
  void data(const char* id, const Values& values, int32_t format = CLDNN_FORMAT_YXFB);

  // Goes as far as it can; the status and text of the stage that refused.
  Stage run(std::vector<cldnn_build_option> options = {});
  // Runs if it has not, expects success and fetches a result.
  Values result(const char* id);
  Values run_again(const char* id);
  cldnn_layout result_layout(const char* id);
  std::vector<std::string> output_names();

  cldnn_status status() const { return status_; }
  const std::string& text() const { return text_; }
  cldnn_network network() const { return network_; }
  cldnn_engine engine() const { return engine_; }

 private:
  void fill(cldnn_primitive& header, cldnn_type_id (*type)(cldnn_status*), const char* id,
            std::initializer_list<const char*> inputs);
  bool failed();
  void release();

  cldnn_engine engine_;
  cldnn_topology topology_ = nullptr;
  cldnn_network network_ = nullptr;
  std::map<std::string, cldnn_memory> inputs_;
  std::deque<std::string> texts_;
  std::deque<std::vector<const char*>> lists_;
  cldnn_status status_ = CLDNN_SUCCESS;
  std::string text_;
};

}  // namespace ravu::opencl::test
