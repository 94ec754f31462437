// Three steps, each left out when its parameter changes nothing: times scale, plus shift, to the
// power.
#include "layers/PowerLayer.h"

#include "kernels/kernels.h"

namespace ravu {

Fit fits(const PowerLayer& layer) {
  const Blob* input = last_input(layer);
  const Blob* output = last_output(layer);
  if (input == nullptr) return {"power needs an input"};
  if (output != nullptr && input->count < output->count) {
    return {"the input is smaller than the output"};
  }
  return {};
}

bool PowerLayer::Forward(std::uint32_t) {
  const Blob* input = last_input(*this);
  Blob* output = last_output(*this);
  if (!has_data(*this) || !fits(*this)) return true;
  // Kept: each step starts from the input again. In shared storage the steps compose; elsewhere the
  // last one decides, those before it are not computed at all, and with no step the output stays.
  const bool shared = input->data == output->data;
  const bool raises = power != 1.0F;
  const bool shifts = shift != 0.0F && (shared || !raises);
  const bool scales = scale != 1.0F && (shared || (!raises && !shifts));
  if (scales || shifts) {
    // Adding -0 changes no value, not even another -0.
    kernels::multiply_and_add(input->data, output->data, output->count, scales ? scale : 1.0F,
                              shifts ? shift : -0.0F);
  }
  if (raises) kernels::raise_to_power(input->data, output->data, output->count, power);
  return true;
}

void PowerLayer::Reshape() {
  reshape_like_input();
}

}  // namespace ravu
