// The two scratch Blobs and the choice between a norm per pixel and a norm per image.
#include "layers/NormalizeLayer.h"

#include <string>

#include "graph/PrimitiveBuilder.h"
#include "kernels/kernels.h"

namespace ravu {
namespace {

// Never larger than the input, once the layer fits.
Shape norm_shape(const NormalizeLayer& layer, const Shape& input) {
  Shape shape = input;
  shape.dims[3] = 1;
  if (layer.across_spatial) shape.dims[1] = shape.dims[2] = 1;
  shape.count = shape.dims[0] * shape.dims[1] * shape.dims[2];
  return shape;
}

kernels::NormalizeSizes sizes_of(const Blob& input) {
  return {.images = input.dims[0],
          .image = input.count / input.dims[0],
          .pixels = std::size_t{input.dims[1]} * input.dims[2],
          .channels = input.dims[3]};
}

bool ready(const NormalizeLayer& layer) {
  return layer.scale != nullptr && layer.scale->data != nullptr && layer.squares != nullptr &&
         layer.norms != nullptr && has_data(layer) && fits(layer);
}

// Brings the scratch Blobs to the input's shape. False when one Blob served as both while the input
// had one channel, and no longer can.
bool fit_scratch_blobs(NormalizeLayer& layer, const Blob& input) {
  fit_scratch(*layer.squares, input);
  fit_scratch(*layer.norms, norm_shape(layer, input));
  return layer.squares->count >= input.count;
}

}  // namespace

Fit fits(const NormalizeLayer& layer) {
  const Blob* input = last_input(layer);
  const Blob* output = last_output(layer);
  if (input == nullptr) return {"L2 normalisation needs an input"};
  if (input->dims[0] == 0 || input->dims[3] == 0) return {"the input has a dimension of 0"};
  if (!dims_within_count(*input)) return {"dims describe more than the tensor holds"};
  if (layer.scale == nullptr) return {"scale: the tensor is not there"};
  if (layer.across_spatial) return {};
  if (layer.scale->count < (layer.channel_shared ? 1 : input->dims[3])) {
    return {"scale: the tensor holds fewer values than the input has channels"};
  }
  if (output != nullptr && output->count < input->count) {
    return {"the output is smaller than the input"};
  }
  return {};
}

bool NormalizeLayer::Forward(std::uint32_t) {
  if (!ready(*this)) return true;
  const Blob& input = *last_input(*this);
  if (!fit_scratch_blobs(*this, input)) return true;
  const auto sizes = sizes_of(input);
  kernels::square(input.data, squares->data, input.count);
  if (across_spatial) {
    // Kept: the norms are computed, but nothing is written to the output.
    kernels::image_norms(sizes, squares->data, norms->data);
  } else {
    kernels::normalize_pixels(sizes, input.data, squares->data, norms->data, scale->data,
                              channel_shared, last_output(*this)->data);
  }
  return true;
}

void NormalizeLayer::AddPrimitives(cldnn_topology_impl* topology, cldnn_engine_impl* engine,
                                   std::uint32_t data_type, Aliases& aliases) {
  if (!is_wired(*this)) return;
  PrimitiveBuilder::require(fits(*this));
  PrimitiveBuilder builder(*this, topology, engine, data_type, aliases);
  const std::string input = builder.map();
  const GpuShape shape = builder.shape(input);
  // One value where the channels share it, else one for each of them.
  const GpuShape scales{.x = channel_shared ? 1 : shape.feature};
  const auto values = static_cast<std::size_t>(scales.x);
  // Kept: named after the input, unlike the other layers' parameters.
  const std::string scale_id = builder.parameter(builder.input_prefix() + "_scale", scales,
                                                 repeated(*scale, values, values));
  cldnn_normalize_desc normalize{};
  normalize.scale_input = scale_id.c_str();
  normalize.across_spatial = across_spatial;
  normalize.epsilon = epsilon;
  builder.add(cldnn::Kind::kNormalize, normalize.header, {input}, shape);
}

bool NormalizeLayer::Setup(std::int32_t, std::vector<BlobPtr>& params) {
  AllocateBlobs(/*in_place=*/false);
  if (!fits(*this)) return true;
  const Blob& input = *last_input(*this);
  squares = &shared_scratch(params, input);
  // Kept: layers with equal norm shapes share their norms, so the second one adds onto what the
  // first one left; so does a one-channel layer with its own squares.
  norms = &shared_scratch(params, norm_shape(*this, input));
  norms->cleared_by_input = true;
  return true;
}

void NormalizeLayer::ReleaseWeights() {
  scale.reset();
  squares = norms = nullptr;
}

}  // namespace ravu
