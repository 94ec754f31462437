// Record "norm": L2 normalisation. The class of the record "normalize" is another one.
#include "layers/NormalizeLayer.h"
#include "model/records/records.h"

namespace ravu {

LayerPtr read_normalize(const Record& record, const LayerRow& row) {
  auto layer = make_layer<NormalizeLayer>(row);
  layer->across_spatial = need_int(record, "across_spatial") != 0;
  layer->channel_shared = need_int(record, "channel_shared") != 0;
  layer->scale = need_tensor(record, "scale");
  return wire(record, row, std::move(layer), shape_of_input);
}

std::uint8_t* write_normalize(const BaseLayer& layer, bool) {
  const auto& norm = static_cast<const NormalizeLayer&>(layer);
  std::uint8_t* record = make_record("norm");
  record = add(record, "across_spatial", make_int(norm.across_spatial ? 1 : 0));
  record = add(record, "channel_shared", make_int(norm.channel_shared ? 1 : 0));
  return add(record, "scale", write_tensor(norm.scale.get(), /*quantise=*/false));
}

}  // namespace ravu
