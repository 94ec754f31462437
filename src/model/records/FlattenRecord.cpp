// Record "flatten".
#include "layers/FlattenLayer.h"
#include "model/records/records.h"

namespace ravu {

LayerPtr read_flatten(const Record& record, const LayerRow& row) {
  return wire(record, row, make_layer<FlattenLayer>(row), [&record](const Blob& input) {
    if (input.dims[0] == 0) record.state->fail("input_layers", "the input has a batch of 0");
    return flatten_shape(input);
  });
}

std::uint8_t* write_flatten(const BaseLayer&, bool) {
  return make_record("flatten");
}

}  // namespace ravu
