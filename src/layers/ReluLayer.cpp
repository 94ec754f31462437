// The rectifier is a step over the input's elements, in place once the network is set up.
#include "layers/ReluLayer.h"

#include "graph/PrimitiveBuilder.h"
#include "graph/fusion.h"

namespace ravu {
namespace {

using kernels::ElementStep;

std::optional<ElementStep> step_of(const BaseLayer& layer) {
  const auto& relu = static_cast<const ReluLayer&>(layer);
  if (!has_data(relu) || !fits(relu)) return std::nullopt;
  return ElementStep{.kind = ElementStep::Kind::kRelu, .slope = relu.negative_slope};
}

}  // namespace

ReluLayer::ReluLayer() {
  element_step = step_of;
  takes_steps = true;
}

Fit fits(const ReluLayer& layer) {
  const Blob* input = last_input(layer);
  const Blob* output = last_output(layer);
  if (input == nullptr) return {"relu needs an input"};
  if (output != nullptr && output->count < input->count) {
    return {"the output is smaller than the input"};
  }
  return {};
}

bool ReluLayer::Forward(std::uint32_t) {
  forward_steps(*this);
  return true;
}

void ReluLayer::AddPrimitives(cldnn_topology_impl* topology, cldnn_engine_impl* engine,
                              std::uint32_t data_type, Aliases& aliases) {
  if (!is_wired(*this)) return;
  PrimitiveBuilder::require(fits(*this));
  PrimitiveBuilder builder(*this, topology, engine, data_type, aliases);
  cldnn_activation_desc activation{};
  activation.negative_slope = negative_slope;
  activation.slope_input = "";
  builder.add(cldnn::Kind::kActivation, activation.header, {builder.input()},
              builder.shape(builder.input()));
  builder.share_with_later_readers();
}

bool ReluLayer::Setup(std::int32_t, std::vector<BlobPtr>&) {
  AllocateBlobs(/*in_place=*/true);
  return true;
}

void ReluLayer::Reshape() {
  reshape_like_input();
}

}  // namespace ravu
