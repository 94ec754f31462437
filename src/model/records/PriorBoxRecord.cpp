// Record "priorbox".
#include "layers/PriorBoxLayer.h"
#include "model/records/records.h"

namespace ravu {

LayerPtr read_prior_box(const Record& record, const LayerRow& row) {
  auto layer = make_layer<PriorBoxLayer>(row);
  PriorBoxLayer& prior = *layer;
  const auto need_size = [&record](std::string_view key) {
    return static_cast<std::uint32_t>(need_int(record, key));
  };
  prior.offset = get_float(record, "offset", 0.0F);
  prior.flip = need_int(record, "flip") != 0;
  prior.num_priors = need_size("num_priors");
  prior.clip = need_int(record, "clip") != 0;
  // Kept: the bits of these four are integers, whatever type the file gives them.
  prior.img_h = need_size("img_h");
  prior.img_w = need_size("img_w");
  prior.step_h = need_size("step_h");
  prior.step_w = need_size("step_w");
  prior.aspect_ratios = need_floats(record, "aspect_ratios");
  prior.variances = need_floats(record, "variance");
  prior.min_sizes = need_floats(record, "min_size");
  prior.max_sizes = need_floats(record, "max_size");
  return wire(record, row, std::move(layer), [&](const Blob&) {
    return prior_box_shape(prior, *prior.inputs.front(), record.state->network->layout);
  });
}

std::uint8_t* write_prior_box(const BaseLayer& layer, bool) {
  const auto& prior = static_cast<const PriorBoxLayer&>(layer);
  const auto size = [](std::uint32_t n) { return make_int(static_cast<std::int32_t>(n)); };
  std::uint8_t* record = make_record("priorbox");
  record = add(record, "offset", make_float(prior.offset));
  record = add(record, "flip", make_int(prior.flip ? 1 : 0));
  record = add(record, "num_priors", size(prior.num_priors));
  record = add(record, "clip", make_int(prior.clip ? 1 : 0));
  record = add(record, "img_h", size(prior.img_h));
  record = add(record, "img_w", size(prior.img_w));
  record = add(record, "step_h", size(prior.step_h));
  record = add(record, "step_w", size(prior.step_w));
  record = add(record, "aspect_ratios", make_small_floats(prior.aspect_ratios));
  record = add(record, "variance", make_small_floats(prior.variances));
  record = add(record, "min_size", make_small_floats(prior.min_sizes));
  return add(record, "max_size", make_small_floats(prior.max_sizes));
}

}  // namespace ravu
