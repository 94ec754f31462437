// Networks behind their public handle, for tests of the exported functions.
#pragma once

#include <cstdint>
#include <vector>

#include "api/handle.h"
#include "support/ModelBuilder.h"
#include "support/blobs.h"

namespace ravu::test {

// Loads a model through the exported function and destroys it through the other. Throws
// when the model does not load.
class Handle {
 public:
  explicit Handle(const ModelBuilder& model, std::uint32_t batch = 1, bool channel_mean = false);
  Handle(const Handle&) = delete;
  Handle& operator=(const Handle&) = delete;
  ~Handle() { ravu_destroy_network(handle_); }

  operator ravu_network*() const { return handle_; }  // NOLINT: it stands for the handle
  Network& network() const { return *to_network(handle_); }

 private:
  ravu_network* handle_;
};

Dims dims_of(const ravu_blob_view& view);
std::vector<float> values_of(const ravu_blob_view& view);
bool is_all_zero(const ravu_blob_view& view);

// Feeds one image to a network of small_classifier's input size, runs it, gives its first output.
std::vector<float> run(ravu_network* network, const std::vector<float>& image,
                       std::uint32_t mode = RAVU_MODE_CPU);

// A record "neuron": outputs = input x weights + bias; the weights lie row after row, one row for
// each of the input's values.
Dictionary neuron(const char* input, const char* output, int features, int outputs,
                  const std::vector<float>& weights, const std::vector<float>& bias);

// A model that is its input alone.
ModelBuilder input_only(int size, int channels);

// What the network's input holds.
std::vector<float> input_values(const Handle& handle);

// 2 x 2 images of one channel -> rectifier "rectified" -> "pooled", the greatest of the four ->
// fully connected "scores" of two values: pooled + 1 and 2 pooled + 5.
ModelBuilder small_classifier();

}  // namespace ravu::test
