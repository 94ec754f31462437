// The weighted sum, once for each output.
#include "layers/EltWiseLayer.h"

#include "kernels/kernels.h"

namespace ravu {

Fit fits(const EltWiseLayer& layer) {
  if (layer.inputs.empty()) return {"eltwise needs an input"};
  if (layer.operation != EltWiseLayer::kSum) return {};
  for (const Blob* output : layer.outputs) {
    for (const Blob* input : layer.inputs) {
      if (input->count < output->count) return {"an input is smaller than the output"};
    }
  }
  return {};
}

bool EltWiseLayer::Forward(std::uint32_t) {
  // Kept: products and maxima are computed on the GPU only.
  if (operation != kSum || !prepared || !all_have_data(inputs) || !fits(*this)) return true;
  // Kept: the model holds no coefficients, so all become 1, those that were there before as well.
  if (coefficients.size() != inputs.size()) coefficients.assign(inputs.size(), 1.0F);
  std::vector<const float*> terms;
  for (const Blob* input : inputs) terms.push_back(input->data);
  for (Blob* output : outputs) {
    if (output->data == nullptr) continue;
    kernels::weighted_sum(terms.data(), coefficients.data(), terms.size(), output->data,
                          output->count);
  }
  return true;
}

void EltWiseLayer::Reshape() {
  reshape_like_input();
}

void EltWiseLayer::ReleaseWeights() {
  coefficients.clear();
}

}  // namespace ravu
