// Record "max".
#include "layers/SoftmaxLayer.h"
#include "model/records/records.h"

namespace ravu {

LayerPtr read_softmax(const Record& record, const LayerRow& row) {
  return wire(record, row, make_layer<SoftmaxLayer>(row), shape_of_input);
}

std::uint8_t* write_softmax(const BaseLayer&, bool) {
  return make_record("max");
}

}  // namespace ravu
