// One pass where scale and bias repeat alike, which is the rule; two where they do not.
#include "layers/ScaleLayer.h"

#include "kernels/kernels.h"

namespace ravu {

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
  const Blob* input = last_input(*this);
  Blob* output = last_output(*this);
  if (!has_data(*this) || !fits(*this)) return true;
  const std::size_t n = output->count;
  const bool shifts = has_bias && bias;
  if (shifts && bias->count == scales->count) {
    kernels::scale_and_shift(input->data, output->data, n, scales->data, bias->data, bias->count);
    return true;
  }
  kernels::scale(input->data, output->data, n, scales->data, scales->count);
  if (shifts) kernels::add_bias(output->data, 1, n, n, bias->data, bias->count, 0);
  return true;
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
