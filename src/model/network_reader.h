// Model file -> network.
#pragma once

#include <cstdint>
#include <memory>
#include <span>
#include <string>

#include "graph/ravuGraph.h"
#include "model/layer_table.h"
#include "model/tag_reader.h"

namespace ravu {

struct LoadOptions {
  bool channel_mean = false;  // replace the mean image by its average per channel
  std::uint32_t batch = 1;
  std::uint64_t memory_limit = machine_memory();  // bytes that all Blobs together may take
};

struct LoadResult {
  std::unique_ptr<Network> network;  // null when the load failed
  std::string reason;                // then: the first reason, for people
};

// Loads the model file; prints nothing of its own.
LoadResult open_network(const char* path, const LoadOptions& options);

// The same, but prints "Fail to parse model (%s)\n" to standard error when it fails.
LoadResult load_network(const char* path, const LoadOptions& options);

// Builds the network of a root element in memory; prints nothing of its own.
LoadResult read_network(const Tag& root, const LoadOptions& options);

// Builds the layers of a "layers" list, in file order. A record whose reader returns nothing is
// tried again before each later record, and dropped when none is left.
void read_layers(const Tag& list, std::span<const LayerRow> table, LoadState& state);

}  // namespace ravu
