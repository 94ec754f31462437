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

}  // namespace ravu
