// The choice, and the calls of the forms. The gather form takes whatever the others do not.
#include "kernels/conv_plan.h"

#include <algorithm>

#include "kernels/workers.h"

namespace ravu::kernels {
namespace {

bool is_depthwise(const ConvSizes& sizes, std::span<const ConvGroup> groups) {
  return sizes.kernels == 1 && groups.size() == sizes.channels;
}

// The rearranged forms have one bias value for each output channel. A bias of another length runs
// on over the product, which only the gather form does.
bool has_plain_bias(const ConvSizes& sizes, std::span<const ConvGroup> groups) {
  return std::all_of(groups.begin(), groups.end(), [&](const ConvGroup& group) {
    return group.bias == nullptr || group.bias_count == sizes.kernels;
  });
}

bool is_winograd(ConvForm form) {
  return form == ConvForm::kWinograd || form == ConvForm::kSmallWinograd;
}

ConvForm best_form(const ConvSizes& sizes, std::span<const ConvGroup> groups) {
  if (!has_plain_bias(sizes, groups)) return ConvForm::kGather;
  if (is_depthwise(sizes, groups)) return ConvForm::kDepthwise;
  const WinogradSide side = winograd_side(sizes);
  if (side == WinogradSide::kFour) return ConvForm::kWinograd;
  if (side == WinogradSide::kTwo) return ConvForm::kSmallWinograd;
  if (can_pack(sizes)) return ConvForm::kDirect;
  return ConvForm::kGather;
}

}  // namespace

const char* form_name(ConvForm form) {
  switch (form) {
    case ConvForm::kGather:
      return "gather";
    case ConvForm::kDirect:
      return "direct";
    case ConvForm::kWinograd:
      return "winograd";
    case ConvForm::kSmallWinograd:
      return "winograd2";
    case ConvForm::kDepthwise:
      return "depthwise";
  }
  return "";
}

void ConvPlan::prepare(const ConvSizes& sizes, std::span<const ConvGroup> groups,
                       Workers& workers) {
  clear();
  const ConvForm form = best_form(sizes, groups);
  if (form == ConvForm::kDirect) {
    for (const ConvGroup& group : groups)
      direct_.push_back(pack_conv(sizes, group.weights, workers));
  } else if (is_winograd(form)) {
    for (const ConvGroup& group : groups)
      winograd_.push_back(pack_winograd(sizes, group.weights, workers));
  } else if (form == ConvForm::kDepthwise) {
    const std::size_t taps = sizes.kernel_h * sizes.kernel_w;
    depthwise_weights_.resize(taps * sizes.channels);
    if (std::any_of(groups.begin(), groups.end(), [](const auto& g) { return g.bias != nullptr; }))
      depthwise_bias_.resize(sizes.channels);
    for (std::size_t c = 0; c < sizes.channels; ++c) {
      for (std::size_t tap = 0; tap < taps; ++tap) {
        depthwise_weights_[tap * sizes.channels + c] = groups[c].weights[tap];
      }
      if (groups[c].bias != nullptr) depthwise_bias_[c] = groups[c].bias[0];
    }
  }
  prepared_ = form;
}

void ConvPlan::clear() {
  prepared_ = ConvForm::kGather;
  direct_.clear();
  winograd_.clear();
  depthwise_weights_.clear();
  depthwise_bias_.clear();
}

bool ConvPlan::suits(const ConvSizes& sizes, std::span<const ConvGroup> groups) const {
  return form(sizes, groups) == best_form(sizes, groups);
}

ConvForm ConvPlan::form(const ConvSizes& sizes, std::span<const ConvGroup> groups) const {
  const auto holds = [&](const auto& packed) {
    return packed.size() == groups.size() && !packed.empty() && packed_for(packed[0], sizes);
  };
  const bool same_taps =
      depthwise_weights_.size() == sizes.kernel_h * sizes.kernel_w * sizes.channels;
  switch (prepared_) {
    case ConvForm::kDirect:
      return holds(direct_) ? prepared_ : ConvForm::kGather;
    case ConvForm::kWinograd:
    case ConvForm::kSmallWinograd:
      return holds(winograd_) ? prepared_ : ConvForm::kGather;
    case ConvForm::kDepthwise:
      return is_depthwise(sizes, groups) && same_taps ? prepared_ : ConvForm::kGather;
    case ConvForm::kGather:
      break;
  }
  return ConvForm::kGather;
}

std::size_t ConvPlan::scratch_floats(const ConvSizes& sizes, std::span<const ConvGroup> groups,
                                     std::size_t threads) const {
  switch (form(sizes, groups)) {
    case ConvForm::kDirect:
      return packed_scratch_floats(sizes, threads);
    case ConvForm::kWinograd:
    case ConvForm::kSmallWinograd:
      return winograd_scratch_floats(sizes);
    case ConvForm::kDepthwise:
      return 0;
    case ConvForm::kGather:
      break;
  }
  return conv_scratch_floats(sizes);
}

void ConvPlan::run(const ConvSizes& sizes, const float* input, std::span<const ConvGroup> groups,
                   const ElementSteps& steps, float* output, float* scratch,
                   Workers& workers) const {
  const ConvForm chosen = form(sizes, groups);
  if (chosen == ConvForm::kDepthwise) {
    const float* bias = depthwise_bias_.empty() ? nullptr : depthwise_bias_.data();
    convolve_depthwise(sizes, input, depthwise_weights_.data(), bias, steps, output, workers);
    return;
  }
  for (std::size_t g = 0; g < groups.size(); ++g) {
    const ConvGroup& group = groups[g];
    const float* from = input + g * sizes.group_channels;
    float* to = output + g * sizes.kernels;
    const ElementSteps own_steps = steps.from_channel(g * sizes.kernels);
    if (chosen == ConvForm::kDirect) {
      convolve_packed(sizes, from, direct_[g], group.bias, own_steps, to, scratch, workers);
    } else if (is_winograd(chosen)) {
      convolve_winograd(sizes, from, winograd_[g], group.bias, own_steps, to, scratch, workers);
    } else {
      convolve(sizes, from, group.weights, group.bias, group.bias_count, own_steps, to, scratch);
    }
  }
}

}  // namespace ravu::kernels
