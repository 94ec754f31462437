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

}  // namespace ravu
