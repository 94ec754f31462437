// Record "bn".
#include "layers/BatchNormLayer.h"
#include "model/records/records.h"

namespace ravu {

LayerPtr read_batch_norm(const Record& record, const LayerRow& row) {
  auto layer = make_layer<BatchNormLayer>(row);
  layer->moving_average_fraction = get_float(record, "maf", 0.0F);
  layer->epsilon = get_float(record, "eps", 0.0F);
  layer->mean = need_tensor(record, "mean");
  layer->divisor = need_tensor(record, "var");
  return wire(record, row, std::move(layer), shape_of_input);
}

}  // namespace ravu
