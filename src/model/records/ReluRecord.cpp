// Record "relu".
#include "layers/ReluLayer.h"
#include "model/records/records.h"

namespace ravu {

LayerPtr read_relu(const Record& record, const LayerRow& row) {
  auto layer = make_layer<ReluLayer>(row);
  layer->negative_slope = get_float(record, "negative_slope", 0.0F);
  return wire(record, row, std::move(layer), shape_of_input);
}

std::uint8_t* write_relu(const BaseLayer& layer, bool) {
  const auto& relu = static_cast<const ReluLayer&>(layer);
  return add(make_record("relu"), "negative_slope", make_float(relu.negative_slope));
}

}  // namespace ravu
