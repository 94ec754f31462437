// Fully connected on the GPU: the weights are uploaded as the processor's single precision wants
// them too, one row of outputs for each feature.
#include <span>
#include <string>
#include <vector>

#include "graph/PrimitiveBuilder.h"
#include "layers/FullyConnectLayer.h"

namespace ravu {

void FullyConnectLayer::AddPrimitives(cldnn_topology_impl* topology, cldnn_engine_impl* engine,
                                      std::uint32_t data_type, Aliases& aliases) {
  if (!is_wired(*this)) return;
  PrimitiveBuilder::require(fits(*this));
  PrimitiveBuilder::require({weights->data ? nullptr : "the weights have been released"});
  PrimitiveBuilder builder(*this, topology, engine, data_type, aliases);
  turn_weights(*this, /*transposed=*/false);
  const GpuShape in = builder.shape(builder.input());
  const auto features = static_cast<std::int32_t>(weights->dims[0]);
  const auto neurons = static_cast<std::int32_t>(last_output(*this)->dims[3]);
  const bool whole_pixels = in.feature > 0 && features % in.feature == 0;
  const GpuShape matrix{neurons, whole_pixels ? in.feature : features,
                        whole_pixels ? features / in.feature : 1};
  const std::size_t values = std::size_t{weights->dims[0]} * last_output(*this)->dims[3];
  const std::string weights_id =
      builder.parameter(builder.prefix() + "_weights", matrix, std::span(weights->data, values));
  std::string bias_id;
  if (has_bias && bias) {
    bias_id = builder.parameter(builder.prefix() + "_bias", GpuShape{.x = neurons},
                                repeated(*bias, bias->count, static_cast<std::size_t>(neurons)));
  }
  cldnn_fully_connected_desc product{};
  product.weights = weights_id.c_str();
  product.bias = bias_id.c_str();
  // clDNN puts the outputs along x: they are one channel until a layer asks for the Blob's sizes.
  builder.add(cldnn::Kind::kFullyConnected, product.header, {builder.input()},
              GpuShape{in.batch, 1, neurons, 1, in.format});
}

}  // namespace ravu
