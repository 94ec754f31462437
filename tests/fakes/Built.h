// Models that are set up on the fake clDNN.
#pragma once

#include <algorithm>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "fakes/FakeCldnn.h"
#include "graph/cldnn_handles.h"
#include "graph/gpu_backend.h"
#include "support/blobs.h"

namespace ravu::test {

using Texts = std::vector<std::string>;

// A model that is set up on the fake.
struct Built {
  explicit Built(const ModelBuilder& model, std::uint32_t batch = 1) {
    LoadOptions options;
    options.batch = batch;
    network = load(model, options).network;
    if (network == nullptr) throw std::logic_error("the model does not load");
  }

  Texts primitives() {
    setup_gpu(*network, /*release_weights=*/false, FakeCldnn::library());
    return fake.primitives();
  }

  FakeCldnn fake;
  std::unique_ptr<Network> network;
};

// The text of the error that the set-up raises.
inline std::string refusal(Built& built) {
  try {
    built.primitives();
  } catch (const cldnn::error& error) {
    return error.what();
  }
  return "nothing was refused";
}

inline std::unique_ptr<Network> network_of(const ModelBuilder& model, std::uint32_t batch = 1) {
  LoadOptions options;
  options.batch = batch;
  return load(model, options).network;
}

inline void fill(Blob& blob, const std::vector<float>& values) {
  std::copy(values.begin(), values.end(), blob.data);
}

// What a GPU forward run refreshes.
inline Blob& result_of(Network& network) {
  return *last_output(*network.layers.back());
}

}  // namespace ravu::test
