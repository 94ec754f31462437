// The shape rule and the choice between the two kernels.
#include "layers/PoolingLayer.h"

#include <algorithm>
#include <cmath>
#include <string>

#include "graph/PrimitiveBuilder.h"
#include "graph/Workspace.h"
#include "kernels/kernels.h"

namespace ravu {
namespace {

// Sizes beyond this can neither be stored nor pooled.
constexpr std::uint32_t kMaxSize = 0x7FFFFFFF;

// Divides in double, rounds up in single precision, as the format's other users do.
std::int64_t output_size(std::uint32_t input, std::uint32_t pad, std::uint32_t kernel,
                         std::uint32_t stride) {
  const std::int64_t room = 2 * std::int64_t{pad} - kernel + input;
  const double quotient = static_cast<double>(room) / stride;
  return static_cast<std::int64_t>(std::ceil(static_cast<float>(quotient))) + 1;
}

kernels::PoolingSizes sizes_of(const PoolingLayer& l, const Blob& input, const Blob& output) {
  return {input.dims[0],  input.dims[1],  input.dims[2], input.dims[3],
          output.dims[1], output.dims[2], l.kernel_h,    l.kernel_w,
          l.stride_h,     l.stride_w,     l.pad_h,       l.pad_w};
}

// clDNN's output size, without padding.
std::int32_t windows_along(std::int32_t input, std::int32_t window, std::int32_t stride) {
  const std::int64_t room = std::max<std::int64_t>(std::int64_t{input} - window, 0);
  return to_size((room + stride - 1) / stride + 1);
}

}  // namespace

std::optional<Shape> pooling_shape(const PoolingLayer& l, const Shape& input) {
  if (l.stride_h == 0 || l.stride_w == 0) return std::nullopt;
  return make_shape(input.dims[0], output_size(input.dims[1], l.pad_h, l.kernel_h, l.stride_h),
                    output_size(input.dims[2], l.pad_w, l.kernel_w, l.stride_w), input.dims[3],
                    input.layout);
}

Fit fits(const PoolingLayer& l) {
  const Blob* input = last_input(l);
  const Blob* output = last_output(l);
  if (input == nullptr) return {"pooling needs an input"};
  if (l.stride_h == 0 || l.stride_w == 0 || l.stride_h > kMaxSize || l.stride_w > kMaxSize) {
    return {"stride must be at least 1"};
  }
  if (l.kernel_h == 0 || l.kernel_w == 0 || l.kernel_h > kMaxSize || l.kernel_w > kMaxSize) {
    return {"psize must be at least 1"};
  }
  if (l.pad_h > kMaxSize || l.pad_w > kMaxSize) return {"paddings must not be negative"};
  if (output == nullptr) return {};
  if (!dims_within_count(*input) || !dims_within_count(*output)) {
    return {"dims describe more than the tensor holds"};
  }
  if (output->dims[0] < input->dims[0] || output->dims[3] != input->dims[3]) {
    return {"the output does not have the input's batch and channels"};
  }
  return {};
}

bool PoolingLayer::Forward(std::uint32_t) {
  const Blob* input = last_input(*this);
  Blob* output = last_output(*this);
  if (!has_data(*this) || !fits(*this)) return true;
  const auto sizes = sizes_of(*this, *input, *output);
  kernels::Workers& workers = workspace->workers();
  if (mode == kMax) kernels::max_pooling(sizes, input->data, output->data, workers);
  if (mode == kAverage) kernels::average_pooling(sizes, input->data, output->data, workers);
  return true;
}

void PoolingLayer::AddPrimitives(cldnn_topology_impl* topology, cldnn_engine_impl* engine,
                                 std::uint32_t data_type, Aliases& aliases) {
  if (!is_wired(*this)) return;
  PrimitiveBuilder::require(fits(*this));
  PrimitiveBuilder builder(*this, topology, engine, data_type, aliases);
  const std::string input = builder.map();
  const GpuShape in = builder.shape(input);
  const auto window_h = static_cast<std::int32_t>(kernel_h);
  const auto window_w = static_cast<std::int32_t>(kernel_w);
  const auto step_h = static_cast<std::int32_t>(stride_h);
  const auto step_w = static_cast<std::int32_t>(stride_w);
  cldnn_pooling_desc pooling{};
  pooling.mode = static_cast<std::int32_t>(mode);
  pooling.size = make_tensor(in.batch, in.feature, window_w, window_h);
  pooling.stride = make_tensor(1, 1, step_w, step_h);
  // Kept: the paddings stay on the processor, so a padded output is smaller on the GPU.
  pooling.input_offset = make_tensor(0, 0, 0, 0);
  const GpuShape out{in.batch, in.feature, windows_along(in.x, window_w, step_w),
                     windows_along(in.y, window_h, step_h), in.format};
  builder.add(cldnn::Kind::kPooling, pooling.header, {input}, out);
}

void PoolingLayer::Reshape() {
  const Blob* input = last_input(*this);
  Blob* output = last_output(*this);
  if (input == nullptr || output == nullptr) return;
  const auto shape = pooling_shape(*this, *input);
  if (shape && !same_dims_and_layout(*output, *shape)) reshape(*output, *shape);
}

}  // namespace ravu
