// The statistics repeat along the output; divisions are done once, in Setup.
#include "layers/BatchNormLayer.h"

#include <algorithm>

#include "kernels/kernels.h"

namespace ravu {

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
  const Blob* input = last_input(*this);
  Blob* output = last_output(*this);
  if (!has_data(*this) || !fits(*this)) return true;
  const std::size_t channels = divisor->dims[3];
  if (reciprocals.size() < std::min<std::size_t>(channels, output->count)) return true;
  kernels::normalise(input->data, output->data, output->count, mean->data, reciprocals.data(),
                     channels);
  return true;
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
