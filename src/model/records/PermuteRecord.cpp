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

std::uint8_t* write_permute(const BaseLayer& layer, bool) {
  const auto& permute = static_cast<const PermuteLayer&>(layer);
  std::array<std::int32_t, 4> order;
  for (std::size_t i = 0; i < order.size(); ++i) {
    order[i] = static_cast<std::int32_t>(permute.order[i]);
  }
  std::uint8_t* record = make_record("permute");
  record = add(record, "need_permute", make_int(permute.need_permute ? 1 : 0));
  return add(record, "permute_order", make_small_ints(order));
}

}  // namespace ravu
