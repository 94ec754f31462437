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

}  // namespace ravu
