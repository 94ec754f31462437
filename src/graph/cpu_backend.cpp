// The driver of the processor run modes; the arithmetic belongs to the layers.
#include "graph/cpu_backend.h"

#include <memory>
#include <new>
#include <utility>

#include "graph/fixed_point_library.h"
#include "graph/fusion.h"

namespace ravu {
namespace {

constexpr std::uint32_t kFixedPointMode = 3;

}  // namespace

bool setup_cpu(Network& network, std::uint32_t mode) {
  network.layout = kInterleaved;
  if (network.mean && network.mean->layout == kPlanar) {
    to_interleaved(*network.mean, network.input_height * network.input_width,
                   network.input_channels);
    network.mean->layout = kInterleaved;
  }
  auto& library = network.workspace.fixed_point;
  if (mode == kFixedPointMode && !library) {
    library = std::make_shared<const FixedPointLibrary>(load_fixed_point_library());
  }
  kernels::Workers& workers = network.workspace.workers();
  workers.set_threads(kernels::blas_threads());
  workers.set_team(mode == kFixedPointMode ? library->run_tasks : nullptr);
  std::uint64_t bytes = network.storage_bytes();
  for (const auto& layer : network.layers) {
    const std::size_t known = network.params.size();
    layer->Setup(static_cast<std::int32_t>(mode), network.params);
    for (std::size_t i = known; i < network.params.size(); ++i) {
      bytes += std::uint64_t{network.params[i]->count} * sizeof(float);
    }
    // The running sum still counts what has become a borrower meanwhile.
    if (bytes > network.memory_limit) bytes = network.storage_bytes();
    if (bytes > network.memory_limit) throw std::bad_alloc();
  }
  network.bind_borrowers();
  link_followers(network);
  return true;
}

void forward_layer(BaseLayer& layer, std::uint32_t mode) {
  if (!std::exchange(layer.done_by_producer, false)) layer.Forward(mode);
}

void subtract_mean(Network& network) {
  Blob& input = *network.input;
  const Blob* mean = network.mean.get();
  if (mean != nullptr && mean->data != nullptr && input.data != nullptr && network.preprocess) {
    subtract_repeated(input.data, input.data, mean->data, -1.0F, input.count, mean->count);
  }
}

void forward_cpu(Network& network, std::uint32_t mode) {
  subtract_mean(network);
  for (const auto& layer : network.layers) forward_layer(*layer, mode);
}

}  // namespace ravu
