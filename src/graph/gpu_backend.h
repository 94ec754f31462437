// Running a network on a GPU through clDNN: run modes 2 and 4.
#pragma once

#include <string>
#include <vector>

#include "graph/ravuGraph.h"

namespace ravu {

// Turns the network into a clDNN network, for a batch and a size of images that are the input's
// from then on. With release_weights the layers' weights are released as soon as they are uploaded.
// Returns true. Raises cldnn::error when something fails; the network can then be destroyed or set
// up again, for the processor as well where the weights are still there.
bool setup_gpu(Network& network, bool release_weights);

// The same with this library instead of the one that the system has.
bool setup_gpu(Network& network, bool release_weights, cldnn::LibraryPtr library);

// The identifiers of the primitives that no other one reads, in text order: a forward run takes the
// result of the first. Needs a set-up. Raises cldnn::error.
std::vector<std::string> gpu_output_names(const Network& network);

// Runs the network on its input and refreshes one Blob: the last output of the last layer. Does
// nothing before a set-up. Raises cldnn::error.
void forward_gpu(Network& network);

}  // namespace ravu
