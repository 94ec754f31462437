// The slopes repeat along the output, one per channel of the input.
#include "layers/PReluLayer.h"

#include <algorithm>

#include "kernels/kernels.h"

namespace ravu {

Fit fits(const PReluLayer& layer) {
  const Blob* input = last_input(layer);
  const Blob* output = last_output(layer);
  if (input == nullptr) return {"prelu needs an input"};
  if (!layer.slopes) return {"filler: the tensor is not there"};
  if (output == nullptr || output->count == 0) return {};
  if (input->count < output->count) return {"the input is smaller than the output"};
  if (input->dims[3] == 0) return {"the input has no channels"};
  if (layer.slopes->count < std::min(input->dims[3], output->count)) {
    return {"filler: the tensor holds fewer slopes than the input has channels"};
  }
  return {};
}

bool PReluLayer::Forward(std::uint32_t) {
  const Blob* input = last_input(*this);
  Blob* output = last_output(*this);
  if (!has_data(*this) || !fits(*this)) return true;
  kernels::prelu(input->data, output->data, output->count, slopes->data, input->dims[3]);
  return true;
}

void PReluLayer::Reshape() {
  reshape_like_input();
}

void PReluLayer::ReleaseWeights() {
  slopes.reset();
}

}  // namespace ravu
