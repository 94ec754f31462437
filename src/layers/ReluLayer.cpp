// The rectifier runs over the input's elements, in place once the network is set up.
#include "layers/ReluLayer.h"

#include "graph/PrimitiveBuilder.h"
#include "kernels/kernels.h"

namespace ravu {

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
  const Blob* input = last_input(*this);
  Blob* output = last_output(*this);
  if (!has_data(*this) || !fits(*this)) return true;
  kernels::relu(input->data, output->data, input->count, negative_slope);
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
