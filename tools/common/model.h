// Opening, preparing and running a model for a subcommand, through the engine's interface where it
// has one, so that the program behaves as any host does.
#pragma once

#include <cstdint>
#include <memory>
#include <span>
#include <string>
#include <vector>

#include "graph/ravuGraph.h"
#include "model/tag_reader.h"

namespace ravu::tools {

// What every measurement and comparison feeds the network with, unless it is told otherwise.
inline constexpr unsigned kInputSeed = 20240229;

// Loads a model file. While it loads, the engine's notices go to standard error, since standard
// output holds results only. Throws Failure with the path and the first reason.
std::unique_ptr<Network> open_model(const std::string& path, bool channel_mean,
                                    std::uint32_t batch);

// The same for the root of a file that is already in memory; `path` is for the message.
std::unique_ptr<Network> open_model(const std::string& path, const Tag& root,
                                    bool channel_mean = false, std::uint32_t batch = 1);

// Reads a model file. Throws Failure when it cannot be read.
FileImage read_model_file(const std::string& path);

// Whether the last layer writes a table of detections.
bool is_detector(const Network& network);

// The label with this index, the index as text when the model names no such label.
std::string label_of(std::span<char* const> labels, std::uint32_t index);

// Sets the number of threads of the BLAS library, which the engine follows; 0 leaves the library's
// own default. To be called before `set_up`.
void set_threads(std::uint32_t threads);

// The number in force.
std::uint32_t threads_in_use();

// Prepares the network for a run mode. Throws Failure when the mode cannot be had.
void set_up(Network& network, std::uint32_t mode);

// Values like an image's pixels, whole numbers from 0 to 255; the same for the same seed.
std::vector<float> seeded_pixels(std::size_t n, unsigned seed = kInputSeed);

// Copies one whole batch of interleaved values into the input.
void feed(Network& network, const std::vector<float>& values);

// One forward pass.
void run(Network& network, std::uint32_t mode);

}  // namespace ravu::tools
