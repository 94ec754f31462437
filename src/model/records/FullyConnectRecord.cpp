// Record "neuron".
#include "layers/FullyConnectLayer.h"
#include "model/records/records.h"

namespace ravu {

LayerPtr read_fully_connect(const Record& record, const LayerRow& row) {
  auto layer = make_layer<FullyConnectLayer>(row);
  const std::int32_t outputs = need_int(need_record(record, "spec"), "num_output");
  layer->weights = need_quantised_tensor(record, "weight");
  layer->has_bias = need_int(record, "has_bias") != 0;
  if (layer->has_bias) layer->bias = need_quantised_tensor(record, "bias");
  layer->weights_transposed = get_int(record, "are_weights_transposed", 0) != 0;
  return wire(record, row, std::move(layer), [outputs](const Blob& input) {
    return make_shape(input.dims[0], 1, 1, outputs, input.layout);
  });
}

std::uint8_t* write_fully_connect(const BaseLayer& layer, bool quantise) {
  const auto& neuron = static_cast<const FullyConnectLayer&>(layer);
  // The output says how many there are: the weights' dims may be larger, and which of them counts
  // outputs depends on the orientation. Without an output the number means nothing.
  const Blob* output = last_output(neuron);
  const std::uint32_t outputs = output == nullptr ? 0 : output->dims[3];
  std::uint8_t* spec =
      add(make_dictionary(), "num_output", make_int(static_cast<std::int32_t>(outputs)));
  std::uint8_t* record = add(make_record("neuron"), "spec", spec);
  record = add(record, "are_weights_transposed", make_int(neuron.weights_transposed ? 1 : 0));
  record = add(record, "weight", write_tensor(neuron.weights.get(), quantise));
  record = add(record, "has_bias", make_int(neuron.has_bias ? 1 : 0));
  if (neuron.has_bias) record = add(record, "bias", write_tensor(neuron.bias.get(), quantise));
  return record;
}

}  // namespace ravu
