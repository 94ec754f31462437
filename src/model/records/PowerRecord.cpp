// Record "power".
#include "layers/PowerLayer.h"
#include "model/records/records.h"

namespace ravu {

LayerPtr read_power(const Record& record, const LayerRow& row) {
  auto layer = make_layer<PowerLayer>(row);
  // Kept: an absent key gives 0 even where 1 would change nothing.
  layer->power = get_float(record, "power", 0.0F);
  layer->scale = get_float(record, "scale", 0.0F);
  layer->shift = get_float(record, "shift", 0.0F);
  layer->power_times_scale = layer->power * layer->scale;
  return wire(record, row, std::move(layer), shape_of_input);
}

std::uint8_t* write_power(const BaseLayer& layer, bool) {
  const auto& power = static_cast<const PowerLayer&>(layer);
  std::uint8_t* record = make_record("power");
  record = add(record, "power", make_float(power.power));
  record = add(record, "scale", make_float(power.scale));
  return add(record, "shift", make_float(power.shift));
}

}  // namespace ravu
