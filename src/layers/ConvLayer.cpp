// Convolution on the processor: each group is one call of the convolution kernel, which reads its
// channels in place and writes its channels in place, so nothing is split or put together.
#include "layers/ConvLayer.h"

#include <algorithm>
#include <utility>

#include "graph/Workspace.h"
#include "graph/fusion.h"
#include "kernels/workers.h"

namespace ravu {
namespace {

constexpr std::uint32_t kFloatMode = 0;
constexpr std::uint32_t kFixedPointMode = 3;

// Kept: the dilation term is multiplied by (stride + 1), not by (kernel - 1).
std::int64_t dilation_cut(std::int64_t dilation, std::int64_t stride) {
  return (dilation - 1) * (stride + 1);
}

std::int64_t output_size(std::int64_t input, std::int64_t pad, std::int64_t kernel,
                         std::int64_t stride, std::int64_t cut) {
  return (input + 2 * pad - cut - kernel) / stride + 1;
}

// Output pixels along one axis that patches are gathered for. Rounds down, where output_size
// rounds towards zero: a kernel a little larger than the padded input has an output pixel and no
// patch.
std::size_t patches_along(std::int64_t input, std::int64_t pad, std::int64_t kernel,
                          std::int64_t stride, std::int64_t dilation) {
  const std::int64_t room = input + 2 * pad - dilation_cut(dilation, stride) - kernel;
  return room < 0 ? 0 : static_cast<std::size_t>(room / stride + 1);
}

std::optional<Shape> shape_of(const ConvLayer& l, const Shape& input, std::int64_t cut_h,
                              std::int64_t cut_w) {
  if (l.stride_h < 1 || l.stride_w < 1) return std::nullopt;
  return make_shape(input.dims[0],
                    output_size(input.dims[1], l.pad_h, l.kernel_h, l.stride_h, cut_h),
                    output_size(input.dims[2], l.pad_w, l.kernel_w, l.stride_w, cut_w),
                    std::int64_t{l.output_channels} * l.groups, input.layout);
}

// Weights of a group that a whole layer's total of output channels was stored for hold this many
// times fewer values than the processor path reads.
bool weights_hold(const ConvLayer& layer, std::uint64_t per_group) {
  for (const BlobPtr& blob : layer.weights) {
    if (blob && blob->count < per_group) return false;
  }
  return true;
}

std::uint64_t weights_per_group(const ConvLayer& layer, const kernels::ConvSizes& sizes) {
  return std::uint64_t{kernels::patch_floats(sizes)} *
         static_cast<std::uint64_t>(layer.output_channels);
}

std::vector<kernels::ConvGroup> groups_of(const ConvLayer& layer) {
  std::vector<kernels::ConvGroup> groups;
  for (std::size_t g = 0; g < layer.weights.size(); ++g) {
    const Blob* bias = layer.has_bias ? layer.biases[g].get() : nullptr;
    groups.push_back({layer.weights[g]->data, bias == nullptr ? nullptr : bias->data,
                      bias == nullptr ? 0 : bias->count});
  }
  return groups;
}

// Brings the plan and the scratch memory up to the layer's sizes.
void prepare_for_sizes(ConvLayer& layer) {
  const Blob* input = last_input(layer);
  const Blob* output = last_output(layer);
  if (input == nullptr || output == nullptr || !fits(layer)) return;
  const auto sizes = conv_sizes(layer, *input, *output);
  if (!has_whole_weights(layer, sizes)) return;
  if (!layer.operators.empty()) {
    layer.workspace->reserve(fixed_point_scratch_floats(layer, sizes, *output));
  }
  if (!layer.single_precision) return;
  const auto groups = groups_of(layer);
  kernels::Workers& workers = layer.workspace->workers();
  if (!layer.plan.suits(sizes, groups)) layer.plan.prepare(sizes, groups, workers);
  layer.workspace->reserve(layer.plan.scratch_floats(sizes, groups, workers.threads()));
}

// Whether every element of the output is the end of a sum over the input, which stands elsewhere.
bool writes_whole_output(const ConvLayer& layer, const kernels::ConvSizes& s) {
  const Blob& output = *last_output(layer);
  return s.rows * s.columns * s.out_channels == s.out_image &&
         s.batch * s.out_image == output.count && last_input(layer)->data != output.data;
}

void forward_float(ConvLayer& layer) {
  if (!has_data(layer) || !fits(layer)) return;
  const Blob& input = *last_input(layer);
  Blob& output = *last_output(layer);
  const auto sizes = conv_sizes(layer, input, output);
  if (!has_whole_weights(layer, sizes)) return;
  const auto groups = groups_of(layer);
  kernels::Workers& workers = layer.workspace->workers();
  const std::size_t scratch = layer.plan.scratch_floats(sizes, groups, workers.threads());
  if (scratch > layer.workspace->size()) return;
  kernels::ElementSteps steps;
  const std::size_t taken =
      writes_whole_output(layer, sizes) ? collect_steps(layer, sizes.out_channels, steps) : 0;
  layer.plan.run(sizes, input.data, groups, steps, output.data, layer.workspace->scratch(),
                 workers);
  mark_done(layer, taken);
}

}  // namespace

std::optional<Shape> conv_record_shape(const ConvLayer& layer, const Shape& input, bool grouped) {
  if (grouped) return shape_of(layer, input, 0, 0);
  return shape_of(layer, input, dilation_cut(layer.dilation_h, layer.stride_h),
                  dilation_cut(layer.dilation_w, layer.stride_w));
}

kernels::ConvSizes conv_sizes(const ConvLayer& l, const Shape& input, const Shape& output) {
  const auto size = [](std::int64_t n) { return static_cast<std::size_t>(n); };
  return {.batch = input.dims[0],
          .height = input.dims[1],
          .width = input.dims[2],
          .channels = input.dims[3],
          .group_channels = input.dims[3] / size(l.groups),
          .rows = patches_along(input.dims[1], l.pad_h, l.kernel_h, l.stride_h, l.dilation_h),
          .columns = patches_along(input.dims[2], l.pad_w, l.kernel_w, l.stride_w, l.dilation_w),
          .kernel_h = size(l.kernel_h),
          .kernel_w = size(l.kernel_w),
          .stride_h = size(l.stride_h),
          .stride_w = size(l.stride_w),
          .pad_h = size(l.pad_h),
          .pad_w = size(l.pad_w),
          // Kept: dilation moves the patch's start; the taps themselves stay contiguous.
          .shift_h = size(l.dilation_h - 1),
          .shift_w = size(l.dilation_w - 1),
          .kernels = size(l.output_channels),
          .out_channels = size(l.output_channels) * size(l.groups),
          .out_image = size(output.dims[1]) * output.dims[2] * output.dims[3]};
}

kernels::ConvForm conv_form(const ConvLayer& layer) {
  const bool whole = last_output(layer) != nullptr && has_weights(layer) && fits(layer);
  if (!whole) return kernels::ConvForm::kGather;
  return layer.plan.form(conv_sizes(layer, *last_input(layer), *last_output(layer)),
                         groups_of(layer));
}

bool has_weights(const ConvLayer& layer) {
  if (layer.weights.empty()) return false;
  for (const BlobPtr& blob : layer.weights) {
    if (!blob || blob->data == nullptr) return false;
  }
  return true;
}

bool has_whole_weights(const ConvLayer& layer, const kernels::ConvSizes& sizes) {
  return has_weights(layer) && weights_hold(layer, weights_per_group(layer, sizes));
}

void interleave_weights(ConvLayer& layer) {
  // A layer without an output is never computed, so its kernel may have any size.
  const std::int64_t kernel_area = std::int64_t{layer.kernel_h} * layer.kernel_w;
  for (const BlobPtr& blob : layer.weights) {
    if (!blob || blob->layout != kPlanar) continue;
    const auto plane = std::min<std::int64_t>(kernel_area, blob->count);
    to_interleaved(*blob, static_cast<std::uint32_t>(plane), blob->dims[0]);
    blob->layout = kInterleaved;
    layer.kernels_transposed = true;
  }
}

Fit fits(const ConvLayer& l) {
  const Blob* input = last_input(l);
  const Blob* output = last_output(l);
  if (input == nullptr) return {"a convolution needs an input"};
  if (l.stride_h < 1 || l.stride_w < 1) return {"stride must be at least 1"};
  if (l.groups < 1) return {"layers_count must be at least 1"};
  if (l.kernel_h < 0 || l.kernel_w < 0) return {"ksize must not be negative"};
  if (l.pad_h < 0 || l.pad_w < 0) return {"padding must not be negative"};
  if (l.dilation_h < 1 || l.dilation_w < 1) return {"dilations must be at least 1"};
  if (l.output_channels < 0 || std::int64_t{l.output_channels} * l.groups > kMaxCount) {
    return {"num_kernels is negative or too large"};
  }
  for (const BlobPtr& bias : l.biases) {
    if (bias && bias->count == 0) return {"the bias holds no value"};
  }
  if (output == nullptr) return {};
  if (!dims_within_count(*input) || !dims_within_count(*output)) {
    return {"dims describe more than the tensor holds"};
  }
  const auto s = conv_sizes(l, *input, *output);
  // Each product stays within 64 bits because the one before it has been compared.
  if (s.rows > kMaxCount || s.columns > kMaxCount || s.rows * s.columns > kMaxCount ||
      s.rows * s.columns * s.out_channels > s.out_image || s.batch * s.out_image > output->count) {
    return {"the output is smaller than what the convolution computes"};
  }
  if (s.kernel_h * s.kernel_w > kMaxCount || kernels::patch_floats(s) > kMaxCount) {
    return {"ksize is too large"};
  }
  // A grouped file may hold the layer's total in num_kernels; the processor then leaves it alone.
  const std::uint64_t needed = weights_per_group(l, s) / static_cast<std::uint64_t>(l.groups);
  if (!weights_hold(l, needed)) {
    return {"kernels: the tensor holds fewer values than the kernel's sizes ask for"};
  }
  return {};
}

bool ConvLayer::Forward(std::uint32_t mode) {
  if (mode == kFloatMode) forward_float(*this);
  if (mode == kFixedPointMode) forward_fixed_point(*this);
  return true;
}

bool ConvLayer::Setup(std::int32_t mode, std::vector<BlobPtr>&) {
  AllocateBlobs(/*in_place=*/false);
  interleave_weights(*this);
  single_precision = mode == kFloatMode;
  if (!single_precision) plan.clear();
  if (mode == kFixedPointMode) prepare_operators(*this);
  prepare_for_sizes(*this);
  return true;
}

void ConvLayer::Reshape() {
  const Blob* input = last_input(*this);
  Blob* output = last_output(*this);
  if (input == nullptr || output == nullptr) return;
  // Kept: dilation does not enter this formula, though it does enter the loader's.
  const auto shape = shape_of(*this, *input, 0, 0);
  if (shape && !same_dims_and_layout(*output, *shape)) reshape(*output, *shape);
  prepare_for_sizes(*this);
}

void ConvLayer::ReleaseWeights() {
  plan.clear();
  operators.clear();
  weights.clear();
  biases.clear();
}

}  // namespace ravu
