// The only file that sends standard output elsewhere for a while.
#include "common/model.h"

#include <cblas.h>

#include <cstdio>
#include <random>
#include <stdexcept>

#ifdef _WIN32
#include <io.h>
#else
#include <unistd.h>
#endif

#include "api/handle.h"
#include "common/failure.h"
#include "graph/fixed_point_library.h"
#include "layers/ConvLayer.h"
#include "layers/DetectionOutputLayer.h"
#include "layers/FullyConnectLayer.h"
#include "model/network_reader.h"

namespace ravu::tools {
namespace {

#ifdef _WIN32
constexpr auto copy_descriptor = _dup;
constexpr auto replace_descriptor = _dup2;
constexpr auto close_descriptor = _close;
#else
constexpr auto copy_descriptor = dup;
constexpr auto replace_descriptor = dup2;
constexpr auto close_descriptor = close;
#endif

// While it lives, what anybody prints to standard output appears on standard error.
class OutputToStderr {
 public:
  OutputToStderr() {
    std::fflush(stdout);
    saved_ = copy_descriptor(kOutput);
    if (saved_ >= 0) replace_descriptor(kError, kOutput);
  }
  OutputToStderr(const OutputToStderr&) = delete;
  OutputToStderr& operator=(const OutputToStderr&) = delete;
  ~OutputToStderr() {
    std::fflush(stdout);
    if (saved_ < 0) return;
    replace_descriptor(saved_, kOutput);
    close_descriptor(saved_);
  }

 private:
  static constexpr int kOutput = 1;
  static constexpr int kError = 2;
  int saved_;
};

// Whether the network has layers that need the fixed-point library in its run mode.
bool needs_fixed_point(const Network& network) {
  for (const auto& layer : network.layers) {
    if (dynamic_cast<const ConvLayer*>(layer.get()) != nullptr ||
        dynamic_cast<const FullyConnectLayer*>(layer.get()) != nullptr) {
      return true;
    }
  }
  return false;
}

std::unique_ptr<Network> loaded(LoadResult result, const std::string& path) {
  if (!result.network) throw Failure(path + ": " + result.reason);
  return std::move(result.network);
}

}  // namespace

std::unique_ptr<Network> open_model(const std::string& path, bool channel_mean,
                                    std::uint32_t batch) {
  LoadOptions options;
  options.channel_mean = channel_mean;
  options.batch = batch;
  const OutputToStderr notices;
  return loaded(open_network(path.c_str(), options), path);
}

std::unique_ptr<Network> open_model(const std::string& path, const Tag& root, bool channel_mean,
                                    std::uint32_t batch) {
  LoadOptions options;
  options.channel_mean = channel_mean;
  options.batch = batch;
  const OutputToStderr notices;
  return loaded(read_network(root, options), path);
}

FileImage read_model_file(const std::string& path) {
  FileImage image = load_file(path.c_str());
  if (!image) throw Failure(path + ": the file cannot be read, or is shorter than its header says");
  return image;
}

bool is_detector(const Network& network) {
  if (network.layers.empty()) return false;
  const BaseLayer& last = *network.layers.back();
  return dynamic_cast<const DetectionOutputLayer*>(&last) != nullptr && !last.outputs.empty();
}

std::string label_of(std::span<char* const> labels, std::uint32_t index) {
  const bool named = index < labels.size() && labels[index][0] != '\0';
  return named ? labels[index] : std::to_string(index);
}

void set_threads(std::uint32_t threads) {
  if (threads > 0) openblas_set_num_threads(static_cast<int>(threads));
}

std::uint32_t threads_in_use() {
  return static_cast<std::uint32_t>(openblas_get_num_threads());
}

void set_up(Network& network, std::uint32_t mode) {
  const std::string name = "run mode " + std::to_string(mode);
  bool prepared = false;
  try {
    prepared = ravu_setup_runEngine(to_handle(&network), mode);
  } catch (const std::runtime_error& error) {
    throw Failure(name + ": " + error.what());
  }
  if (!prepared) throw Failure(name + " cannot be set up: not provided, or out of memory");
  if (mode == RAVU_MODE_FIXED_POINT && needs_fixed_point(network) &&
      !*network.workspace.fixed_point) {
    throw Failure(name + ": " + network.workspace.fixed_point->problem);
  }
}

std::vector<float> seeded_pixels(std::size_t n, unsigned seed) {
  std::mt19937 generator(seed);
  std::vector<float> values(n);
  for (float& value : values) value = static_cast<float>(generator() & 0xFFU);
  return values;
}

void feed(Network& network, const std::vector<float>& values) {
  const auto& dims = network.input->dims;
  ravu_set_InputData_byRawData_float(to_handle(&network), values.data(), dims[0], dims[1], dims[2],
                                     dims[3]);
}

void run(Network& network, std::uint32_t mode) {
  ravu_forward(to_handle(&network), mode);
}

}  // namespace ravu::tools
