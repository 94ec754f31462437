// Convolution on the GPU: one clDNN primitive, split into as many parts as the layer has groups.
#include <algorithm>
#include <string>
#include <vector>

#include "graph/PrimitiveBuilder.h"
#include "layers/ConvLayer.h"

namespace ravu {
namespace {

// One group's convolution, in clDNN's words.
struct Group {
  std::int32_t inputs;      // channels that it reads
  std::int32_t outputs;     // channels that it writes
  std::size_t weights_row;  // values for each of those
};

Group group_of(const ConvLayer& layer, const GpuShape& input) {
  const std::int32_t channels = input.feature / layer.groups;
  const auto row = static_cast<std::size_t>(channels) * static_cast<std::size_t>(layer.kernel_h) *
                   static_cast<std::size_t>(layer.kernel_w);
  Group group{channels, layer.output_channels, row};
  // A file may hold the whole layer's channels in num_kernels; its tensors then tell.
  const auto needed = row * static_cast<std::size_t>(layer.output_channels);
  for (const BlobPtr& blob : layer.weights) {
    if (blob->count < needed) group.outputs = layer.output_channels / layer.groups;
  }
  return group;
}

// clDNN's yxfb: for each position of the kernel and input channel, the outputs side by side.
std::vector<float> turned(const Blob& weights, const Group& group) {
  const auto outputs = static_cast<std::size_t>(group.outputs);
  PrimitiveBuilder::require({weights.count >= outputs * group.weights_row
                                 ? nullptr
                                 : "kernels: the tensor holds too few values"});
  std::vector<float> values(outputs * group.weights_row);
  for (std::size_t o = 0; o < outputs; ++o) {
    for (std::size_t k = 0; k < group.weights_row; ++k) {
      values[k * outputs + o] = weights.data[o * group.weights_row + k];
    }
  }
  return values;
}

std::vector<float> bias_values(const Blob* bias, std::size_t outputs) {
  return bias == nullptr ? std::vector<float>(outputs) : repeated(*bias, bias->count, outputs);
}

// clDNN's output size: a dilated kernel really spreads its taps.
std::int32_t size_along(std::int32_t input, std::int32_t pad, std::int32_t kernel,
                        std::int32_t stride, std::int32_t dilation) {
  const std::int64_t extent = std::int64_t{dilation} * (kernel - 1) + 1;
  const std::int64_t room = std::max<std::int64_t>(input + 2 * std::int64_t{pad} - extent, 0);
  return to_size(room / stride + 1);
}

std::vector<cldnn_id> pointers(const std::vector<std::string>& ids) {
  std::vector<cldnn_id> list;
  list.reserve(ids.size());
  for (const std::string& id : ids) list.push_back(id.c_str());
  return list;
}

std::vector<std::string> add_weights(PrimitiveBuilder& builder, const ConvLayer& layer,
                                     const Group& group) {
  const GpuShape shape{group.outputs, group.inputs, layer.kernel_w, layer.kernel_h};
  std::vector<std::string> ids;
  for (const BlobPtr& weights : layer.weights) {
    const std::string name = builder.prefix() + "_weights_" + std::to_string(ids.size());
    ids.push_back(builder.parameter(name, shape, turned(*weights, group)));
  }
  return ids;
}

std::vector<std::string> add_biases(PrimitiveBuilder& builder, const ConvLayer& layer,
                                    const Group& group) {
  std::vector<std::string> ids;
  if (!layer.has_bias) return ids;
  for (const BlobPtr& bias : layer.biases) {
    const std::string name = builder.prefix() + "_bias_" + std::to_string(ids.size());
    ids.push_back(
        builder.parameter(name, GpuShape{.x = group.outputs},
                          bias_values(bias.get(), static_cast<std::size_t>(group.outputs))));
  }
  return ids;
}

}  // namespace

void ConvLayer::AddPrimitives(cldnn_topology_impl* topology, cldnn_engine_impl* engine,
                              std::uint32_t data_type, Aliases& aliases) {
  if (!is_wired(*this)) return;
  PrimitiveBuilder::require(fits(*this));
  PrimitiveBuilder::require({has_weights(*this) ? nullptr : "the weights have been released"});
  PrimitiveBuilder builder(*this, topology, engine, data_type, aliases);
  interleave_weights(*this);
  const std::string input = builder.map();
  const GpuShape in = builder.shape(input);
  const Group group = group_of(*this, in);
  const auto weight_ids = add_weights(builder, *this, group);
  const auto bias_ids = add_biases(builder, *this, group);
  const auto weight_list = pointers(weight_ids);
  const auto bias_list = pointers(bias_ids);
  cldnn_convolution_desc convolution{};
  convolution.input_offset = make_tensor(0, 0, -pad_w, -pad_h);
  convolution.stride = make_tensor(1, 1, stride_w, stride_h);
  convolution.dilation = make_tensor(1, 1, dilation_w, dilation_h);
  convolution.split = static_cast<std::uint32_t>(weight_list.size());
  convolution.weights = {weight_list.data(), weight_list.size()};
  convolution.bias = {bias_list.data(), bias_list.size()};
  const GpuShape out{in.batch, group.outputs * groups,
                     size_along(in.x, pad_w, kernel_w, stride_w, dilation_w),
                     size_along(in.y, pad_h, kernel_h, stride_h, dilation_h), in.format};
  builder.add(cldnn::Kind::kConvolution, convolution.header, {input}, out);
}

}  // namespace ravu
