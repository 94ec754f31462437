// The exported functions but those for input: check the handle, forward, convert the result.
#include <cstdio>
#include <memory>

#include "api/handle.h"
#include "graph/cpu_backend.h"
#include "graph/gpu_backend.h"
#include "model/network_reader.h"
#include "model/network_writer.h"

using namespace ravu;

namespace {

ravu_blob_view view_of(const Blob* blob) {
  if (blob == nullptr) return {};
  // A Blob without storage shows no elements, so that nobody reads any.
  return {blob->data,
          blob->data == nullptr ? 0 : blob->count,
          {blob->dims[0], blob->dims[1], blob->dims[2], blob->dims[3]}};
}

bool inside(std::int32_t index, std::size_t size) {
  return index >= 0 && static_cast<std::size_t>(index) < size;
}

}  // namespace

ravu_network* ravu_create_network_private(const char* path, bool channel_mean, uint32_t batch) {
  return or_fallback<ravu_network*>(nullptr, [&] {
    LoadOptions options;
    options.channel_mean = channel_mean;
    options.batch = batch;
    return to_handle(load_network(path, options).network.release());
  });
}

ravu_network* ravu_create_network_caffe(void) {
  return nullptr;
}

void ravu_save_network_to_private(ravu_network* network, const char* path, bool quantise) {
  if (network != nullptr) save_network(*to_network(network), path, quantise);
}

void ravu_destroy_network(ravu_network* network) {
  const std::unique_ptr<Network> owner(to_network(network));
  if (owner) owner->release();
}

uint32_t ravu_get_network_inputSize(ravu_network* network) {
  return network == nullptr ? 0 : to_network(network)->input_width;
}

uint32_t ravu_get_network_inputChannels(ravu_network* network) {
  return network == nullptr ? 0 : to_network(network)->input_channels;
}

void ravu_release_netowrk_weights(ravu_network* network) {
  if (network != nullptr) to_network(network)->release_weights();
}

bool ravu_setup_runEngine(ravu_network* network, uint32_t mode) {
  if (network == nullptr) return false;
  return or_fallback(false, [&] {
    switch (mode) {
      case RAVU_MODE_CPU:
      case RAVU_MODE_FIXED_POINT:
        return setup_cpu(*to_network(network), mode);
      case RAVU_MODE_GPU:
      case RAVU_MODE_GPU_KEEP:
        return setup_gpu(*to_network(network), /*release_weights=*/mode == RAVU_MODE_GPU);
      default:
        return false;
    }
  });
}

void ravu_forward(ravu_network* network, uint32_t mode) {
  if (network == nullptr) return;
  if (mode == RAVU_MODE_CPU || mode == RAVU_MODE_FIXED_POINT) {
    or_fallback(false, [&] {
      forward_cpu(*to_network(network), mode);
      return true;
    });
  } else if (mode == RAVU_MODE_GPU || mode == RAVU_MODE_GPU_KEEP) {
    or_fallback(false, [&] {
      forward_gpu(*to_network(network));
      return true;
    });
  } else if (mode == RAVU_MODE_RESERVED) {
    // Kept: the reserved mode's notice names this file and line as they once were.
    std::printf("%s(#%d), in run_forward_mkldnn\n", "src\\graph\\ravuGraph", 593);
  }
}

int64_t ravu_getOutput_blob_num(ravu_network* network) {
  return network == nullptr ? 0 : static_cast<int64_t>(to_network(network)->outputs.size());
}

ravu_blob_view ravu_getOutput_blob(ravu_network* network, int32_t index) {
  if (network == nullptr || !inside(index, to_network(network)->outputs.size())) return {};
  return view_of(to_network(network)->outputs[static_cast<std::size_t>(index)]);
}

char** ravu_getOutput_Labels(ravu_network* network) {
  return network == nullptr ? nullptr : to_network(network)->labels.data();
}

ravu_blob_view ravu_hidden_blob(ravu_network* network, int32_t index) {
  if (network == nullptr || !inside(index, to_network(network)->layers.size())) return {};
  return view_of(last_output(*to_network(network)->layers[static_cast<std::size_t>(index)]));
}

void ravu_print_timeTable(ravu_network*) {}
