// Network -> model file.
#pragma once

#include "graph/ravuGraph.h"

namespace ravu {

// Writes the network to `path`; quantise: convolution and fully connected weights and biases are
// stored as bytes. The file is written beside the destination and renamed over it, so that a
// failure leaves an existing file as it was; a destination that is no regular file is written
// directly, a link is followed. On failure, also when a tensor to be written has been released,
// prints "Fail to save graph to %s\n" to standard error and answers false.
bool save_network(const Network& network, const char* path, bool quantise);

// Writes a finished root element to `path` in the same way, but prints nothing: false on failure.
// Throws std::bad_alloc.
bool write_model_file(const std::uint8_t* root, const char* path);

// The model file's bytes (see tag_writer.h); null when memory does not suffice or a tensor that
// must be written has been released.
std::uint8_t* write_network(const Network& network, bool quantise);

}  // namespace ravu
