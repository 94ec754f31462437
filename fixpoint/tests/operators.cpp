#include "operators.h"

namespace ravu::fixpoint::test {

Conv::Conv(const ConvCase& c, float weight_range) : Holder(function<ConvCreate>(kConvCreate)(1)) {
  usable_ = configure(*this, c) && function<ConvFinish>(kConvFinish)(*this, weight_range);
}

std::optional<std::vector<float>> Conv::run(const ConvCase& c, float input_range,
                                            float rounding) const {
  if (!set_input(*this, c, input_range)) return std::nullopt;
  std::vector<float> output(static_cast<std::size_t>(c.batch * c.rows() * c.columns() * c.outputs));
  float nowhere = 0;
  float* data = output.empty() ? &nowhere : output.data();
  if (!function<ConvRun>(kConvRun)(*this, data, rounding)) return std::nullopt;
  return output;
}

bool configure(Operator* op, const ConvCase& c) {
  return function<ConvConfigure>(kConvConfigure)(
      op, c.outputs, c.channels, 1, c.kernel_h, c.kernel_w, c.stride_h, c.stride_w, c.dilation_h,
      c.dilation_w, c.pad_h, c.pad_w, c.weights.data(), !c.bias.empty(),
      c.bias.empty() ? nullptr : c.bias.data(), false);
}

bool set_input(Operator* op, const ConvCase& c, float range) {
  return function<ConvSetInput>(kConvSetInput)(op, c.batch, c.channels, c.width, c.height,
                                               c.input.data(), range);
}

}  // namespace ravu::fixpoint::test
