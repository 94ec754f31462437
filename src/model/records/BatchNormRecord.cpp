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

// Kept: "is_global" and "channels" are written, and no reader looks at them.
std::uint8_t* write_batch_norm(const BaseLayer& layer, bool) {
  const auto& norm = static_cast<const BatchNormLayer&>(layer);
  const std::uint32_t channels = norm.divisor ? norm.divisor->dims[3] : 0;
  std::uint8_t* record = make_record("bn");
  record = add(record, "maf", make_float(norm.moving_average_fraction));
  record = add(record, "eps", make_float(norm.epsilon));
  record = add(record, "is_global", make_int(norm.global_statistics ? 1 : 0));
  record = add(record, "channels", make_int(static_cast<std::int32_t>(channels)));
  record = add(record, "mean", write_tensor(norm.mean.get(), /*quantise=*/false));
  return add(record, "var", write_tensor(norm.divisor.get(), /*quantise=*/false));
}

}  // namespace ravu
