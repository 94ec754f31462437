// Networks behind their public handle, for tests of the exported functions.
#pragma once

#include <cstdint>
#include <vector>

#include "api/handle.h"
#include "support/blobs.h"
#include "support/models.h"

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

// What the network's input holds.
std::vector<float> input_values(const Handle& handle);

}  // namespace ravu::test
