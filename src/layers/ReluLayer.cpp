// The rectifier runs over the input's elements, in place once the network is set up.
#include "layers/ReluLayer.h"

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

bool ReluLayer::Setup(std::int32_t, std::vector<BlobPtr>&) {
  AllocateBlobs(/*in_place=*/true);
  return true;
}

void ReluLayer::Reshape() {
  reshape_like_input();
}

}  // namespace ravu
