// Record "relu".
#include "layers/ReluLayer.h"
#include "model/records/records.h"

namespace ravu {

LayerPtr read_relu(const Record& record, const LayerRow& row) {
  auto layer = make_layer<ReluLayer>(row);
  layer->negative_slope = get_float(record, "negative_slope", 0.0F);
  return wire(record, row, std::move(layer), shape_of_input);
}

}  // namespace ravu
