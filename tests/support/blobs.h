// Small Blobs and networks for layer tests.
#pragma once

#include <array>
#include <cstdint>
#include <memory>
#include <vector>

#include "graph/BaseLayer.h"
#include "graph/Blob.h"
#include "graph/Workspace.h"
#include "model/network_reader.h"
#include "support/ModelBuilder.h"

namespace ravu::test {

using Dims = std::array<std::uint32_t, 4>;

// A Blob with these dims; its storage holds `values`, or nothing when there are none.
BlobPtr make_blob(Dims dims, const std::vector<float>& values = {});

std::vector<float> values_of(const Blob& blob);

// The bits of the values, all NaNs alike: for comparing what may hold NaNs or zeros of both signs.
std::vector<std::uint32_t> bits_of(const std::vector<float>& values);

// `n` values of which some are 0, -0, infinite or not a number.
std::vector<float> values_with_extremes(std::size_t n, unsigned seed);

// Wires one layer to Blobs made from these inputs and an output of these dims, sets it up for
// `mode` and can run it.
struct LayerRig {
  explicit LayerRig(BaseLayer& wired_layer) : layer(wired_layer) { layer.workspace = &workspace; }
  LayerRig(const LayerRig&) = delete;
  LayerRig& operator=(const LayerRig&) = delete;
  ~LayerRig();  // unwires the layer, which outlives the Blobs here

  Blob& add_input(Dims dims, const std::vector<float>& values = {});
  Blob& add_output(Dims dims);
  void set_up(int mode = 0) { layer.Setup(mode, params); }
  std::vector<float> run(unsigned mode = 0);

  BaseLayer& layer;
  std::vector<BlobPtr> blobs;
  std::vector<BlobPtr> params;
  Workspace workspace;
};

// Loads a model from memory; the network is null, and `reason` says why, when it does not load.
LoadResult load(const Bytes& model, const LoadOptions& options = {});
LoadResult load(const ModelBuilder& model, const LoadOptions& options = {});

// One layer built from its record, on an input Blob "data" of input_size x input_size x channels.
struct LoadedLayer {
  std::unique_ptr<Network> network;
  BaseLayer* layer = nullptr;  // null when the model did not load
  std::string reason;
};
LoadedLayer load_layer(const Bytes& record, int input_size, int channels, std::uint32_t batch = 1);

}  // namespace ravu::test
