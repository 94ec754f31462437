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

}  // namespace ravu
