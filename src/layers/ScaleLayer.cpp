// One step where scale and bias repeat alike, which is the rule; two passes where they do not.
#include "layers/ScaleLayer.h"

#include <span>
#include <string>
#include <vector>

#include "graph/PrimitiveBuilder.h"
#include "graph/Workspace.h"
#include "graph/fusion.h"
#include "kernels/kernels.h"

namespace ravu {
namespace {

using kernels::ElementStep;

bool shifts(const ScaleLayer& layer) {
  return layer.has_bias && layer.bias;
}

std::optional<ElementStep> scale_step(const ScaleLayer& layer) {
  if (!has_data(layer) || !fits(layer)) return std::nullopt;
  return ElementStep{.kind = ElementStep::Kind::kScale,
                     .first = layer.scales->data,
                     .period = layer.scales->count};
}

// Scale and bias that repeat alike; none where they do not.
std::optional<ElementStep> step_of(const BaseLayer& layer) {
  const auto& scale = static_cast<const ScaleLayer&>(layer);
  auto step = scale_step(scale);
  if (!step || !shifts(scale)) return step;
  if (scale.bias->count != scale.scales->count) return std::nullopt;
  step->kind = ElementStep::Kind::kScaleAndShift;
  step->second = scale.bias->data;
  return step;
}

bool divides(const Blob* values, std::size_t n) {
  return values == nullptr || (values->count != 0 && n % values->count == 0);
}

// The part of the input along which scale and bias repeat: its channels, or with larger tensors its
// rows, its images or all of it.
GpuShape repeating_shape(const GpuShape& input, const Blob& scales, const Blob* bias) {
  GpuShape shape{.feature = input.feature};
  for (const int dims : {1, 2, 3, 4}) {
    if (dims == 2) shape.x = input.x;
    if (dims == 3) shape.y = input.y;
    if (dims == 4) shape.batch = input.batch;
    if (divides(&scales, elements(shape)) && divides(bias, elements(shape))) break;
  }
  return shape;
}

// Like the processor's set-up, this interleaves planar scales but no bias.
std::vector<float> interleaved(const Blob& scales) {
  Blob turned;
  static_cast<Shape&>(turned) = scales;
  assign(turned, scales.data);
  to_interleaved(turned, turned.dims[1] * turned.dims[2], turned.dims[3]);
  return {turned.data, turned.data + turned.count};
}

std::vector<float> in_memory_order(std::span<const float> values, const GpuShape& shape) {
  const auto all = repeated(values, values.size(), elements(shape));
  return shape.batch > 1 ? batch_innermost(all, static_cast<std::size_t>(shape.batch)) : all;
}

}  // namespace

ScaleLayer::ScaleLayer() {
  element_step = step_of;
  takes_steps = true;
}

Fit fits(const ScaleLayer& layer) {
  const Blob* input = last_input(layer);
  const Blob* output = last_output(layer);
  if (input == nullptr) return {"scale needs an input"};
  if (!layer.scales) return {"scales: the tensor is not there"};
  if (output == nullptr || output->count == 0) return {};
  if (input->count < output->count) return {"the input is smaller than the output"};
  if (layer.scales->count == 0) return {"scales: the tensor holds no value"};
  if (layer.has_bias && layer.bias && layer.bias->count == 0) {
    return {"bias: the tensor holds no value"};
  }
  return {};
}

bool ScaleLayer::Forward(std::uint32_t) {
  const auto times = scale_step(*this);
  if (!times) return true;
  if (!shifts(*this) || bias->count == scales->count) {
    forward_steps(*this);
    return true;
  }
  Blob& output = *last_output(*this);
  kernels::ElementSteps steps;
  steps.add(*times);
  kernels::apply_steps(steps, times->period, last_input(*this)->data, output.data, output.count,
                       workspace->workers());
  kernels::add_bias(output.data, 1, output.count, output.count, bias->data, bias->count, 0);
  return true;
}

void ScaleLayer::AddPrimitives(cldnn_topology_impl* topology, cldnn_engine_impl* engine,
                               std::uint32_t data_type, Aliases& aliases) {
  if (!is_wired(*this)) return;
  PrimitiveBuilder::require(fits(*this));
  PrimitiveBuilder builder(*this, topology, engine, data_type, aliases);
  const std::string input = builder.map();
  const GpuShape shape = builder.shape(input);
  const Blob* shift = has_bias ? bias.get() : nullptr;
  const GpuShape repeating = repeating_shape(shape, *scales, shift);
  const std::string scale_id = builder.parameter(builder.prefix() + "_scale", repeating,
                                                 in_memory_order(interleaved(*scales), repeating));
  std::string bias_id;
  if (shift != nullptr) {
    bias_id = builder.parameter(builder.prefix() + "_scale_bias", repeating,
                                in_memory_order({shift->data, shift->count}, repeating));
  }
  cldnn_scale_desc times{};
  times.scale_input = scale_id.c_str();
  times.bias = bias_id.c_str();
  builder.add(cldnn::Kind::kScale, times.header, {input}, shape);
}

bool ScaleLayer::Setup(std::int32_t, std::vector<BlobPtr>&) {
  AllocateBlobs(/*in_place=*/false);
  // Kept: the layout word stays planar, so a planar tensor of several pixels is reordered again by
  // every set-up.
  if (scales) to_interleaved(*scales, scales->dims[1] * scales->dims[2], scales->dims[3]);
  return true;
}

void ScaleLayer::Reshape() {
  reshape_like_input();
}

void ScaleLayer::ReleaseWeights() {
  scales.reset();
  bias.reset();
}

}  // namespace ravu
