// One row per class that has parameters; a class without a row costs nothing.
#include "common/layer_costs.h"

#include "layers/BatchNormLayer.h"
#include "layers/ConvLayer.h"
#include "layers/CropLayer.h"
#include "layers/FullyConnectLayer.h"
#include "layers/NormalizeLayer.h"
#include "layers/PReluLayer.h"
#include "layers/ScaleLayer.h"
#include "model/layer_table.h"

namespace ravu::tools {
namespace {

std::uint64_t values_in(const BlobPtr& blob) {
  return blob ? blob->count : 0;
}

LayerCosts costs_of(const ConvLayer& layer) {
  LayerCosts costs;
  for (const BlobPtr& blob : layer.weights) costs.parameters += values_in(blob);
  for (const BlobPtr& blob : layer.biases) costs.parameters += values_in(blob);
  const Blob* output = last_output(layer);
  if (output == nullptr || !fits(layer)) return costs;
  const auto sizes = conv_sizes(layer, *last_input(layer), *output);
  costs.multiply_adds = std::uint64_t{sizes.batch} * sizes.rows * sizes.columns *
                        sizes.out_channels * kernels::patch_floats(sizes);
  return costs;
}

LayerCosts costs_of(const FullyConnectLayer& layer) {
  LayerCosts costs;
  costs.parameters = values_in(layer.weights) + values_in(layer.bias);
  if (last_output(layer) == nullptr || !layer.weights || !fits(layer)) return costs;
  // Each weight is used once per image.
  const auto& matrix = layer.weights->dims;
  costs.multiply_adds = std::uint64_t{matrix[0]} * matrix[1] * last_input(layer)->dims[0];
  return costs;
}

LayerCosts costs_of(const BatchNormLayer& layer) {
  return {.parameters = values_in(layer.mean) + values_in(layer.divisor)};
}

LayerCosts costs_of(const ScaleLayer& layer) {
  return {.parameters = values_in(layer.scales) + values_in(layer.bias)};
}

LayerCosts costs_of(const PReluLayer& layer) {
  return {.parameters = values_in(layer.slopes)};
}

LayerCosts costs_of(const NormalizeLayer& layer) {
  return {.parameters = values_in(layer.scale)};
}

// Answers false and leaves `costs` alone when the layer is of another class.
using Counter = bool (*)(const BaseLayer& layer, LayerCosts& costs);

template <class Layer>
bool count_as(const BaseLayer& layer, LayerCosts& costs) {
  const auto* known = dynamic_cast<const Layer*>(&layer);
  if (known != nullptr) costs = costs_of(*known);
  return known != nullptr;
}

constexpr Counter kCounters[] = {
    count_as<BatchNormLayer>, count_as<ConvLayer>,  count_as<FullyConnectLayer>,
    count_as<NormalizeLayer>, count_as<PReluLayer>, count_as<ScaleLayer>,
};

}  // namespace

LayerCosts layer_costs(const BaseLayer& layer) {
  LayerCosts costs;
  for (const Counter count : kCounters) {
    if (count(layer, costs)) break;
  }
  return costs;
}

std::string layer_class(const BaseLayer& layer) {
  if (layer.type == CropLayer::kType) return "crop";
  const auto* conv = dynamic_cast<const ConvLayer*>(&layer);
  if (conv != nullptr) return conv->groups == 1 ? "conv" : "gconv";
  for (const LayerRow& row : layer_table()) {
    if (row.type == layer.type) return std::string(row.keyword);
  }
  return "type " + std::to_string(layer.type);
}

std::vector<std::string> layer_kernels(const Network& network) {
  std::vector<std::string> kernels(network.layers.size());
  for (std::size_t i = 0; i < network.layers.size(); ++i) {
    const BaseLayer& layer = *network.layers[i];
    const auto* conv = dynamic_cast<const ConvLayer*>(&layer);
    if (conv != nullptr && conv->single_precision) {
      kernels[i] = ravu::kernels::form_name(conv_form(*conv));
    }
    // A follower stands right behind the layer that computes it.
    std::size_t next = i;
    for (const BaseLayer* follower : layer.followers) {
      if (follower != nullptr) kernels[++next] = "fused";
    }
  }
  return kernels;
}

}  // namespace ravu::tools
