// The slopes repeat along the output, one per channel of the input.
#include "layers/PReluLayer.h"

#include <algorithm>
#include <string>

#include "graph/PrimitiveBuilder.h"
#include "graph/fusion.h"

namespace ravu {
namespace {

using kernels::ElementStep;

std::optional<ElementStep> step_of(const BaseLayer& layer) {
  const auto& prelu = static_cast<const PReluLayer&>(layer);
  if (!has_data(prelu) || !fits(prelu)) return std::nullopt;
  return ElementStep{.kind = ElementStep::Kind::kPRelu,
                     .first = prelu.slopes->data,
                     .period = last_input(prelu)->dims[3]};
}

}  // namespace

PReluLayer::PReluLayer() {
  element_step = step_of;
  takes_steps = true;
}

Fit fits(const PReluLayer& layer) {
  const Blob* input = last_input(layer);
  const Blob* output = last_output(layer);
  if (input == nullptr) return {"prelu needs an input"};
  if (!layer.slopes) return {"filler: the tensor is not there"};
  if (output == nullptr || output->count == 0) return {};
  if (input->count < output->count) return {"the input is smaller than the output"};
  if (input->dims[3] == 0) return {"the input has no channels"};
  if (layer.slopes->count < std::min(input->dims[3], output->count)) {
    return {"filler: the tensor holds fewer slopes than the input has channels"};
  }
  return {};
}

bool PReluLayer::Forward(std::uint32_t) {
  forward_steps(*this);
  return true;
}

void PReluLayer::AddPrimitives(cldnn_topology_impl* topology, cldnn_engine_impl* engine,
                               std::uint32_t data_type, Aliases& aliases) {
  if (!is_wired(*this)) return;
  PrimitiveBuilder::require(fits(*this));
  PrimitiveBuilder builder(*this, topology, engine, data_type, aliases);
  const std::string input = builder.map();
  const GpuShape shape = builder.shape(input);
  const auto channels = static_cast<std::size_t>(shape.feature);
  const GpuShape slope_row{.x = shape.feature};
  const std::string slopes_id = builder.parameter(builder.prefix() + "_slope", slope_row,
                                                  repeated(*slopes, channels, channels));
  cldnn_activation_desc activation{};
  activation.slope_input = slopes_id.c_str();
  builder.add(cldnn::Kind::kActivation, activation.header, {input}, shape);
}

void PReluLayer::Reshape() {
  reshape_like_input();
}

void PReluLayer::ReleaseWeights() {
  slopes.reset();
}

}  // namespace ravu
