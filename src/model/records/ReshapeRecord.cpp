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

std::uint8_t* write_reshape(const BaseLayer& layer, bool) {
  const auto& reshape = static_cast<const ReshapeLayer&>(layer);
  std::uint8_t* record = make_record("reshape");
  record = add(record, "constant_count", make_int(reshape.constant_count));
  record = add(record, "inferred_axis", make_int(reshape.inferred_axis));
  return add(record, "dims", make_small_ints(reshape.dims));
}

}  // namespace ravu
