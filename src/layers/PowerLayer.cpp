// Three steps, each left out when its parameter changes nothing: times scale, plus shift, to the
// power.
#include "layers/PowerLayer.h"

#include <span>
#include <string>

#include "graph/PrimitiveBuilder.h"
#include "kernels/kernels.h"

namespace ravu {

Fit fits(const PowerLayer& layer) {
  const Blob* input = last_input(layer);
  const Blob* output = last_output(layer);
  if (input == nullptr) return {"power needs an input"};
  if (output != nullptr && input->count < output->count) {
    return {"the input is smaller than the output"};
  }
  return {};
}

bool PowerLayer::Forward(std::uint32_t) {
  const Blob* input = last_input(*this);
  Blob* output = last_output(*this);
  if (!has_data(*this) || !fits(*this)) return true;
  // Kept: each step starts from the input again. In shared storage the steps compose; elsewhere the
  // last one decides, those before it are not computed at all, and with no step the output stays.
  const bool shared = input->data == output->data;
  const bool raises = power != 1.0F;
  const bool shifts = shift != 0.0F && (shared || !raises);
  const bool scales = scale != 1.0F && (shared || (!raises && !shifts));
  if (scales || shifts) {
    // Adding -0 changes no value, not even another -0.
    kernels::multiply_and_add(input->data, output->data, output->count, scales ? scale : 1.0F,
                              shifts ? shift : -0.0F);
  }
  if (raises) kernels::raise_to_power(input->data, output->data, output->count, power);
  return true;
}

void PowerLayer::AddPrimitives(cldnn_topology_impl* topology, cldnn_engine_impl* engine,
                               std::uint32_t data_type, Aliases& aliases) {
  if (!is_wired(*this)) return;
  PrimitiveBuilder::require(fits(*this));
  PrimitiveBuilder builder(*this, topology, engine, data_type, aliases);
  const std::string scale_id =
      builder.parameter(builder.prefix() + "_scale", GpuShape{}, std::span(&scale, 1));
  // Kept: shift and power are the processor's alone.
  cldnn_scale_desc times{};
  times.scale_input = scale_id.c_str();
  times.bias = "";
  builder.add(cldnn::Kind::kScale, times.header, {builder.input()}, builder.shape(builder.input()));
}

void PowerLayer::Reshape() {
  reshape_like_input();
}

}  // namespace ravu
