// Record "reshape".
#include "layers/ReshapeLayer.h"
#include "model/records/records.h"

namespace ravu {

LayerPtr read_reshape(const Record& record, const LayerRow& row) {
  auto layer = make_layer<ReshapeLayer>(row);
  ReshapeLayer& reshaped = *layer;
  reshaped.constant_count = need_int(record, "constant_count");
  reshaped.inferred_axis = need_int(record, "inferred_axis");
  reshaped.dims = need_four_ints(record, "dims");
  return wire(record, row, std::move(layer), [&reshaped](const Blob& input) {
    return std::optional<Shape>(reshape_record_shape(reshaped, input));
  });
}

}  // namespace ravu
