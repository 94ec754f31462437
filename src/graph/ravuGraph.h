// The network: the object behind every handle. It owns the layers, the Blobs between them and
// everything else, and releases it all in a fixed order.
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "graph/BaseLayer.h"
#include "graph/Blob.h"
#include "graph/GpuGraph.h"
#include "graph/Workspace.h"
#include "graph/cldnn_handles.h"

namespace ravu {

// Bytes of memory that this machine has.
std::uint64_t machine_memory();

// What a GPU set-up makes. The objects are released in the order of the fields.
struct GpuHandles {
  cldnn::LibraryPtr library;  // that the objects belong to
  cldnn::Topology topology;
  cldnn::GpuNetwork gpu_network;
  cldnn::Engine engine;
};

struct Network {
  std::uint32_t input_width = 0;  // the model's "input_size", as is input_height
  std::uint32_t input_height = 0;
  std::uint32_t image_width = 0;  // the model's "image_size", as is image_height
  std::uint32_t image_height = 0;
  std::uint32_t input_channels = 0;
  std::map<std::string, Blob*, std::less<>> blobs_by_name;  // the input and every layer output
  GpuHandles gpu_handles;                                   // empty until a GPU set-up
  std::vector<GpuHandles> earlier_gpu_handles;              // of GPU set-ups before the last one
  GpuGraph gpu;                                             // of the last GPU set-up
  std::uint32_t data_type = 0;                              // clDNN's code, set by a GPU set-up
  Aliases aliases;
  std::uint32_t layout = kInterleaved;             // of input and mean; every set-up clears it
  std::vector<std::unique_ptr<BaseLayer>> layers;  // execution order
  std::vector<BlobPtr> params;                     // Blobs that layers placed here in Setup
  std::vector<char*> labels;                       // owned copies
  BlobPtr input;
  BlobPtr mean;                      // null when the model has none
  bool preprocess = false;           // "need_crop": crop when built, subtract the mean when run
  std::vector<Blob*> outputs;        // borrowed, in the order of collection
  std::vector<BlobPtr> graph_blobs;  // the record of every Blob made by wiring or by the crop
  Workspace workspace;
  std::uint64_t memory_limit = machine_memory();  // bytes that all Blobs together may take

  Network() = default;
  Network(const Network&) = delete;
  Network& operator=(const Network&) = delete;
  ~Network() { release(); }

  // Installs a new input or mean; an earlier one is released.
  void set_input(BlobPtr blob);
  void set_mean(BlobPtr blob);

  void add_layer(std::unique_ptr<BaseLayer> layer);

  // Appends a private copy of the text to `labels`.
  void add_label(std::string_view text);

  // Makes a Blob record that the network owns and registers it under its name, replacing an earlier
  // entry of that name.
  Blob& add_blob(const Shape& shape, std::string_view name);

  // Lists the outputs that no layer reads without also writing them, and gives them storage.
  void collect_outputs();

  // Gives the input a new shape and lets every layer follow. When the memory limit or the
  // memory does not suffice the network is as it was before, and std::bad_alloc is thrown.
  void change_input_shape(const Shape& shape);

  // Zeroes the parameter Blobs that add up from run to run. Called with every new input, so that
  // one input and one forward run always give the same result.
  void clear_for_input();

  // Points every borrowing Blob at the storage of the root of its chain.
  void bind_borrowers();

  // Bytes that the elements of all Blobs take or will take once they are allocated.
  std::uint64_t storage_bytes() const;

  // Releases the parameter Blobs, last to first, then every layer's weights.
  void release_weights();

  // Releases everything; the network is empty afterwards. Raises cldnn::error when clDNN refuses to
  // release something; what is left then goes with the network.
  void release();
};

}  // namespace ravu
