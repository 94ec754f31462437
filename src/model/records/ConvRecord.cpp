// Records "conv" and "gconv". A grouped record holds one sub-record per group; the scalar values of
// the last one are the layer's.
#include "layers/ConvLayer.h"
#include "model/records/records.h"

namespace ravu {
namespace {

// Reads one kernel set and the values that all sets share.
void read_kernel_set(const Record& record, ConvLayer& layer) {
  const Record spec = need_record(record, "spec");
  layer.output_channels = need_int(spec, "num_kernels");
  layer.stride_w = layer.stride_h = need_int(spec, "stride");
  layer.kernel_w = layer.kernel_h = need_int(spec, "ksize");
  layer.pad_w = layer.pad_h = need_int(record, "padding");
  layer.has_bias = need_int(record, "has_bias") != 0;
  layer.dilation_h = get_int(record, "dilation_h", layer.dilation_h);
  layer.dilation_w = get_int(record, "dilation_w", layer.dilation_w);
  layer.kernels_transposed =
      get_int(record, "are_kernels_transposed", layer.kernels_transposed ? 1 : 0) != 0;
  layer.weights.push_back(need_quantised_tensor(record, "kernels"));
  layer.biases.push_back(layer.has_bias ? need_quantised_tensor(record, "bias") : nullptr);
}

// Adds the keys of kernel set `i`.
std::uint8_t* write_kernel_set(const ConvLayer& conv, std::uint8_t* record, std::size_t i,
                               bool quantise) {
  std::uint8_t* spec = add(make_dictionary(), "num_kernels", make_int(conv.output_channels));
  spec = add(spec, "ksize", make_int(conv.kernel_h));
  spec = add(spec, "stride", make_int(conv.stride_h));
  record = add(record, "spec", spec);
  record = add(record, "kernels", write_tensor(conv.weights[i].get(), quantise));
  record = add(record, "are_kernels_transposed", make_int(conv.kernels_transposed ? 1 : 0));
  const Blob* bias = conv.has_bias ? conv.biases[i].get() : nullptr;
  record = add(record, "has_bias", make_int(bias != nullptr ? 1 : 0));
  record = add(record, "dilation_h", make_int(conv.dilation_h));
  record = add(record, "dilation_w", make_int(conv.dilation_w));
  if (bias != nullptr) record = add(record, "bias", write_tensor(bias, quantise));
  record = add(record, "layers_count", make_int(conv.groups));
  return add(record, "padding", make_int(conv.pad_h));
}

LayerPtr wire_conv(const Record& record, const LayerRow& row, std::unique_ptr<ConvLayer> layer,
                   bool grouped) {
  const ConvLayer& conv = *layer;
  return wire(record, row, std::move(layer), [&conv, grouped](const Blob& input) {
    return conv_record_shape(conv, input, grouped);
  });
}

}  // namespace

LayerPtr read_conv(const Record& record, const LayerRow& row) {
  auto layer = make_layer<ConvLayer>(row);
  layer->groups = get_int(record, "layers_count", layer->groups);
  read_kernel_set(record, *layer);
  if (layer->groups != 1)
    record.state->fail("layers_count", "a plain convolution has one kernel set");
  return wire_conv(record, row, std::move(layer), /*grouped=*/false);
}

LayerPtr read_grouped_conv(const Record& record, const LayerRow& row) {
  auto layer = make_layer<ConvLayer>(row);
  layer->groups = need_int(record, "layers_count");
  std::int32_t sets = 0;
  TagWalk walk(need_tag(record, "layers"));
  for (; sets < layer->groups && !record.state->failed && walk.next(); ++sets) {
    read_kernel_set({walk.child, record.state}, *layer);
  }
  if (sets < layer->groups || sets == 0) {
    record.state->fail("layers", "needs as many kernel sets as layers_count says, at least one");
  }
  return wire_conv(record, row, std::move(layer), /*grouped=*/true);
}

std::uint8_t* write_conv(const BaseLayer& layer, bool quantise) {
  const auto& conv = static_cast<const ConvLayer&>(layer);
  if (conv.weights.size() == 1) {
    return write_kernel_set(conv, make_record("conv"), 0, quantise);
  }
  // A layer whose weights were released has no kernel sets, and so no record.
  if (conv.weights.empty()) return nullptr;
  std::uint8_t* sets = make_list();
  for (std::size_t i = 0; i < conv.weights.size(); ++i) {
    sets = append(sets, write_kernel_set(conv, make_record("conv"), i, quantise));
  }
  std::uint8_t* record = add(make_dictionary(), "layers_count", make_int(conv.groups));
  record = add(record, "class", make_text("gconv"));
  return add(record, "layers", sets);
}

}  // namespace ravu
