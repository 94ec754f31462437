// How a convolution layer is computed: the form that is fastest for its sizes, and its weights,
// rearranged once for that form.
#pragma once

#include <cstddef>
#include <span>
#include <vector>

#include "kernels/kernels.h"
#include "kernels/packed_conv.h"
#include "kernels/winograd.h"

namespace ravu::kernels {

enum class ConvForm { kGather, kDirect, kWinograd, kSmallWinograd, kDepthwise };

// The form's name in reports.
const char* form_name(ConvForm form);

// One group of a layer, as the model stores it: `kernels` weight rows of patch_floats, and the bias
// (null: none).
struct ConvGroup {
  const float* weights;
  const float* bias;
  std::size_t bias_count;
};

class ConvPlan {
 public:
  // Chooses the form for these sizes and rearranges copies of the weights for it. Throws
  // std::bad_alloc.
  void prepare(const ConvSizes& sizes, std::span<const ConvGroup> groups, Workers& workers);

  void clear();

  // Whether `prepare` would choose the same again.
  bool suits(const ConvSizes& sizes, std::span<const ConvGroup> groups) const;

  // The form that `run` uses: the prepared one, or the one that needs no preparation where the
  // sizes have changed since.
  ConvForm form(const ConvSizes& sizes, std::span<const ConvGroup> groups) const;

  // Floats of scratch memory that `run` wants.
  std::size_t scratch_floats(const ConvSizes& sizes, std::span<const ConvGroup> groups,
                             std::size_t threads) const;

  // The sums that `convolve` describes, group after group, and then the steps, whose parameters are
  // for the output channels of all groups. `input` and `output` are the whole arrays of all groups,
  // and different ones.
  void run(const ConvSizes& sizes, const float* input, std::span<const ConvGroup> groups,
           const ElementSteps& steps, float* output, float* scratch, Workers& workers) const;

 private:
  ConvForm prepared_ = ConvForm::kGather;
  std::vector<PackedConv> direct_;
  std::vector<WinogradConv> winograd_;
  std::vector<float> depthwise_weights_;  // one row of channels for each tap
  std::vector<float> depthwise_bias_;     // one for each channel, or empty
};

}  // namespace ravu::kernels
