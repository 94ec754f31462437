// The choice of the group that sums to 1.
#include "layers/SoftmaxLayer.h"

#include "kernels/kernels.h"

namespace ravu {
namespace {

std::size_t group_length(const Shape& input) {
  return input.dims[3] != 1 ? input.dims[3] : std::size_t{input.dims[1]} * input.dims[2];
}

}  // namespace

Fit fits(const SoftmaxLayer& layer) {
  const Blob* input = last_input(layer);
  const Blob* output = last_output(layer);
  if (input == nullptr) return {"softmax needs an input"};
  if (output != nullptr && output->count < input->count) {
    return {"the output is smaller than the input"};
  }
  if (input->count > 0 && group_length(*input) == 0) return {"the input has a dimension of 0"};
  return {};
}

bool SoftmaxLayer::Forward(std::uint32_t) {
  const Blob* input = last_input(*this);
  Blob* output = last_output(*this);
  if (!has_data(*this) || !fits(*this)) return true;
  kernels::softmax(input->data, output->data, input->count, group_length(*input));
  return true;
}

void SoftmaxLayer::Reshape() {
  reshape_like_input();
}

}  // namespace ravu
