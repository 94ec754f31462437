// Copies one run of channels after the other until the output is full. The output's count decides
// how many pixels that are; the inputs' heights and widths are not looked at.
#include "layers/ConcatLayer.h"

#include <algorithm>
#include <cstring>
#include <string>
#include <vector>

#include "graph/PrimitiveBuilder.h"

namespace ravu {
namespace {

std::uint64_t total_channels(const ConcatLayer& layer) {
  std::uint64_t total = 0;
  for (const Blob* input : layer.inputs) total += input->dims[3];
  return total;
}

}  // namespace

std::optional<Shape> concat_shape(const ConcatLayer& layer, const Shape& reference) {
  const std::uint64_t channels = total_channels(layer);
  std::uint64_t count = 0;
  for (const Blob* input : layer.inputs) count += input->count;
  if (channels > kMaxCount || count > kMaxCount) return std::nullopt;
  Shape shape = reference;
  shape.dims[3] = static_cast<std::uint32_t>(channels);
  shape.count = static_cast<std::uint32_t>(count);
  return shape;
}

Fit fits(const ConcatLayer& layer) {
  const Blob* output = last_output(layer);
  if (layer.inputs.empty()) return {"concat needs an input"};
  if (output == nullptr || output->count == 0) return {};
  const std::uint64_t pixel = total_channels(layer);
  if (pixel == 0) return {"the inputs have no channels"};
  const std::uint64_t whole_pixels = output->count / pixel;
  std::uint64_t rest = output->count % pixel;
  for (const Blob* input : layer.inputs) {
    const std::uint64_t channels = input->dims[3];
    const std::uint64_t last = std::min(rest, channels);
    rest -= last;
    if (whole_pixels * channels + last > input->count) {
      return {"an input has fewer pixels than the output"};
    }
  }
  return {};
}

bool ConcatLayer::Forward(std::uint32_t) {
  Blob* output = last_output(*this);
  if (!prepared || output == nullptr || output->data == nullptr || !all_have_data(inputs) ||
      !fits(*this)) {
    return true;
  }
  float* to = output->data;
  std::size_t left = output->count;
  for (std::size_t pixel = 0; left > 0; ++pixel) {
    for (const Blob* input : inputs) {
      const std::size_t channels = input->dims[3];
      const std::size_t run = std::min(channels, left);
      if (run == 0) continue;
      // The output may be one of the inputs.
      std::memmove(to, input->data + pixel * channels, run * sizeof(float));
      to += run;
      left -= run;
    }
  }
  return true;
}

void ConcatLayer::AddPrimitives(cldnn_topology_impl* topology, cldnn_engine_impl* engine,
                                std::uint32_t data_type, Aliases& aliases) {
  if (!is_wired(*this)) return;
  PrimitiveBuilder::require(fits(*this));
  PrimitiveBuilder builder(*this, topology, engine, data_type, aliases);
  std::vector<std::string> ids;
  GpuShape shape;
  for (std::size_t i = 0; i < inputs.size(); ++i) {
    ids.push_back(builder.map(i));
    const GpuShape& next = builder.shape(ids.back());
    if (i == 0) {
      shape = next;
    } else if (shape.format == CLDNN_FORMAT_BFYX) {
      shape.y = to_size(std::int64_t{shape.y} + next.y);
    } else {
      shape.feature = to_size(std::int64_t{shape.feature} + next.feature);
    }
  }
  cldnn_concatenation_desc concatenation{};
  // The channels of prior boxes, which are in bfyx, lie along y.
  concatenation.axis =
      shape.format == CLDNN_FORMAT_BFYX ? CLDNN_CONCATENATION_Y : CLDNN_CONCATENATION_F;
  builder.add(cldnn::Kind::kConcatenation, concatenation.header, ids, shape);
}

void ConcatLayer::Reshape() {
  const Blob* input = last_input(*this);
  Blob* output = last_output(*this);
  if (input == nullptr || output == nullptr) return;
  // Kept: height and width stay what they were, whatever the inputs' have become.
  auto shape = concat_shape(*this, *output);
  if (!shape) return;
  shape->dims[0] = input->dims[0];
  reshape(*output, *shape);
}

}  // namespace ravu
