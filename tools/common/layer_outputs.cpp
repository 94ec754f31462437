// On the processor the layers of one network are run one by one, as the engine does it.
#include "common/layer_outputs.h"

#include <memory>
#include <unordered_map>

#include "common/failure.h"
#include "common/layer_costs.h"
#include "common/model.h"
#include "common/printing.h"
#include "common/pruning.h"
#include "graph/PrimitiveBuilder.h"
#include "graph/cpu_backend.h"
#include "graph/fusion.h"
#include "graph/gpu_backend.h"
#include "ravu/ravu.h"

namespace ravu::tools {
namespace {

// The layers without their values.
std::vector<LayerOutput> list_layers(const Network& network) {
  std::vector<LayerOutput> list;
  std::unordered_map<const Blob*, std::uint32_t> writers;
  for (const auto& layer : network.layers) {
    LayerOutput& entry = list.emplace_back();
    entry.class_name = layer_class(*layer);
    const Blob* output = last_output(*layer);
    if (!is_wired(*layer)) entry.problem = "has no input or no output";
    if (output == nullptr) continue;
    entry.name = output->name;
    entry.writer = writers[output]++;
    entry.shape = output->dims;
  }
  return list;
}

void take_values(const BaseLayer& layer, LayerOutput& entry) {
  const Blob* output = last_output(layer);
  if (output == nullptr || output->data == nullptr) {
    entry.problem = "has no values";
  } else {
    entry.values.assign(output->data, output->data + output->count);
  }
}

void run_on_processor(const ModelSource& model, std::uint32_t mode, const std::vector<float>& input,
                      std::vector<LayerOutput>& list) {
  const auto network = open_model(model);
  set_up(*network, mode);
  unlink_followers(*network);  // so that every layer leaves its own values, not those behind it
  feed(*network, input);
  subtract_mean(*network);
  for (std::size_t i = 0; i < list.size(); ++i) {
    network->layers[i]->Forward(mode);
    if (list[i].problem.empty()) take_values(*network->layers[i], list[i]);
  }
}

// A forward run takes the result that comes first by name.
bool gives_its_last_layer(const Network& network) {
  const std::string wanted = resolve(network.aliases, last_output(*network.layers.back())->name);
  const std::vector<std::string> names = gpu_output_names(network);
  return !names.empty() && names.front() == wanted;
}

void run_on_gpu(const ModelSource& model, std::uint32_t mode, const std::vector<float>& input,
                std::size_t index, LayerOutput& entry) {
  const auto network = open_model(model);
  keep_ancestors(*network, index);
  try {
    set_up(*network, mode);
    if (!gives_its_last_layer(*network)) {
      entry.problem = "stands beside another output of the same network";
      return;
    }
    feed(*network, input);
    run(*network, mode);
  } catch (const std::runtime_error& error) {
    throw Failure("layer " + std::to_string(index) + " (" + entry.class_name + " " +
                  printable(entry.name) + "): " + error.what());
  }
  take_values(*network->layers.back(), entry);
}

}  // namespace

std::unique_ptr<Network> open_model(const ModelSource& model) {
  return open_model(model.path, root_tag(model.image.get()), model.channel_mean);
}

std::vector<LayerOutput> layer_outputs(const ModelSource& model, std::uint32_t mode,
                                       const std::vector<float>& input) {
  std::vector<LayerOutput> list = list_layers(*open_model(model));
  if (mode != RAVU_MODE_GPU && mode != RAVU_MODE_GPU_KEEP) {
    run_on_processor(model, mode, input, list);
    return list;
  }
  for (std::size_t i = 0; i < list.size(); ++i) {
    if (list[i].problem.empty()) run_on_gpu(model, mode, input, i, list[i]);
  }
  return list;
}

}  // namespace ravu::tools
