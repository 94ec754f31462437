// Record "concat".
#include "layers/ConcatLayer.h"
#include "model/records/records.h"

namespace ravu {

LayerPtr read_concat(const Record& record, const LayerRow& row) {
  auto layer = make_layer<ConcatLayer>(row);
  const ConcatLayer& concat = *layer;
  return wire(record, row, std::move(layer),
              [&concat](const Blob&) { return concat_shape(concat, *concat.inputs.front()); });
}

std::uint8_t* write_concat(const BaseLayer&, bool) {
  return make_record("concat");
}

}  // namespace ravu
