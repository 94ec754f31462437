// Record "permute".
#include <algorithm>

#include "layers/PermuteLayer.h"
#include "model/records/records.h"

namespace ravu {

LayerPtr read_permute(const Record& record, const LayerRow& row) {
  auto layer = make_layer<PermuteLayer>(row);
  layer->need_permute = need_int(record, "need_permute") != 0;
  const auto order = need_four_ints(record, "permute_order");
  std::copy(order.begin(), order.end(), layer->order.begin());
  return wire(record, row, std::move(layer), shape_of_input);
}

}  // namespace ravu
