// The statistics repeat along the output; divisions are done once, in Setup.
#include "layers/BatchNormLayer.h"

#include <algorithm>
#include <string>
#include <vector>

#include "graph/PrimitiveBuilder.h"
#include "graph/fusion.h"

namespace ravu {
namespace {

using kernels::ElementStep;

std::optional<ElementStep> step_of(const BaseLayer& layer) {
  const auto& norm = static_cast<const BatchNormLayer&>(layer);
  if (!has_data(norm) || !fits(norm)) return std::nullopt;
  const std::size_t channels = norm.divisor->dims[3];
  if (norm.reciprocals.size() < std::min<std::size_t>(channels, last_output(norm)->count)) {
    return std::nullopt;
  }
  return ElementStep{.kind = ElementStep::Kind::kNormalise,
                     .first = norm.mean->data,
                     .second = norm.reciprocals.data(),
                     .period = channels};
}

}  // namespace

BatchNormLayer::BatchNormLayer() {
  element_step = step_of;
  takes_steps = true;
}

Fit fits(const BatchNormLayer& layer) {
  const Blob* input = last_input(layer);
  const Blob* output = last_output(layer);
  if (input == nullptr) return {"batch normalisation needs an input"};
  if (!layer.mean || !layer.divisor) return {"mean, var: the tensors are not there"};
  if (output == nullptr || output->count == 0) return {};
  if (input->count < output->count) return {"the input is smaller than the output"};
  const std::uint32_t channels = layer.divisor->dims[3];
  const std::uint32_t used = std::min(channels, output->count);
  if (channels == 0 || layer.divisor->count < used) return {"var: the tensor holds no value"};
  if (layer.mean->count < used) return {"mean: the tensor holds fewer values than var's channels"};
  return {};
}

bool BatchNormLayer::Forward(std::uint32_t) {
  forward_steps(*this);
  return true;
}

void BatchNormLayer::AddPrimitives(cldnn_topology_impl* topology, cldnn_engine_impl* engine,
                                   std::uint32_t data_type, Aliases& aliases) {
  if (!is_wired(*this)) return;
  PrimitiveBuilder::require(fits(*this));
  PrimitiveBuilder builder(*this, topology, engine, data_type, aliases);
  const std::string input = builder.map();
  const GpuShape shape = builder.shape(input);
  const GpuShape per_channel{.feature = shape.feature};
  const auto channels = static_cast<std::size_t>(shape.feature);
  std::vector<float> variances = repeated(*divisor, divisor->dims[3], channels);
  for (float& value : variances) value *= value;
  const std::string mean_id = builder.parameter(builder.prefix() + "_mean", per_channel,
                                                repeated(*mean, divisor->dims[3], channels));
  const std::string variance_id =
      builder.parameter(builder.prefix() + "_var", per_channel, variances);
  cldnn_batch_norm_desc norm{};
  norm.mean = mean_id.c_str();
  norm.variance = variance_id.c_str();
  norm.use_global_statistics = global_statistics;
  norm.epsilon = epsilon;
  builder.add(cldnn::Kind::kBatchNorm, norm.header, {input}, shape);
}

bool BatchNormLayer::Setup(std::int32_t, std::vector<BlobPtr>&) {
  AllocateBlobs(/*in_place=*/false);
  reciprocals.clear();
  if (!divisor || divisor->data == nullptr) return true;
  reciprocals.assign(divisor->data, divisor->data + divisor->count);
  // A divisor of 0 gives an infinite factor.
  for (float& value : reciprocals) value = 1.0F / value;
  return true;
}

void BatchNormLayer::Reshape() {
  reshape_like_input();
}

void BatchNormLayer::ReleaseStatistics() {
  mean.reset();
  divisor.reset();
}

}  // namespace ravu
