// Record "normalize": local response normalisation. The class of the record "norm" is another one.
#include "layers/LrnLayer.h"
#include "model/records/records.h"

namespace ravu {

LayerPtr read_lrn(const Record& record, const LayerRow& row) {
  auto layer = make_layer<LrnLayer>(row);
  layer->size = static_cast<std::uint32_t>(need_int(record, "size"));
  // Kept: an absent k is 0, where 1 is customary.
  layer->k = get_float(record, "k", 0.0F);
  layer->alpha = get_float(record, "alpha", 0.0F);
  layer->beta = get_float(record, "beta", 0.0F);
  return wire(record, row, std::move(layer), shape_of_input);
}

std::uint8_t* write_lrn(const BaseLayer& layer, bool) {
  const auto& lrn = static_cast<const LrnLayer&>(layer);
  std::uint8_t* record = make_record("normalize");
  record = add(record, "size", make_int(static_cast<std::int32_t>(lrn.size)));
  record = add(record, "k", make_float(lrn.k));
  record = add(record, "alpha", make_float(lrn.alpha));
  return add(record, "beta", make_float(lrn.beta));
}

}  // namespace ravu
