// Record "scale".
#include "layers/ScaleLayer.h"
#include "model/records/records.h"

namespace ravu {

LayerPtr read_scale(const Record& record, const LayerRow& row) {
  auto layer = make_layer<ScaleLayer>(row);
  layer->has_bias = need_int(record, "has_bias") != 0;
  layer->scales = need_tensor(record, "scales");
  if (layer->has_bias) layer->bias = need_tensor(record, "bias");
  return wire(record, row, std::move(layer), shape_of_input);
}

std::uint8_t* write_scale(const BaseLayer& layer, bool) {
  const auto& scale = static_cast<const ScaleLayer&>(layer);
  const Blob* bias = scale.has_bias ? scale.bias.get() : nullptr;
  std::uint8_t* record = make_record("scale");
  record = add(record, "has_bias", make_int(bias != nullptr ? 1 : 0));
  record = add(record, "scales", write_tensor(scale.scales.get(), /*quantise=*/false));
  if (bias != nullptr) record = add(record, "bias", write_tensor(bias, /*quantise=*/false));
  return record;
}

}  // namespace ravu
