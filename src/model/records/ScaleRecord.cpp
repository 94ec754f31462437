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

}  // namespace ravu
