// Record "prelu".
#include "layers/PReluLayer.h"
#include "model/records/records.h"

namespace ravu {

LayerPtr read_prelu(const Record& record, const LayerRow& row) {
  auto layer = make_layer<PReluLayer>(row);
  layer->channel_shared = need_int(record, "channel_shared") != 0;
  layer->slopes = need_tensor(record, "filler");
  return wire(record, row, std::move(layer), shape_of_input);
}

std::uint8_t* write_prelu(const BaseLayer& layer, bool) {
  const auto& prelu = static_cast<const PReluLayer&>(layer);
  std::uint8_t* record = make_record("prelu");
  record = add(record, "channel_shared", make_int(prelu.channel_shared ? 1 : 0));
  return add(record, "filler", write_tensor(prelu.slopes.get(), /*quantise=*/false));
}

}  // namespace ravu
