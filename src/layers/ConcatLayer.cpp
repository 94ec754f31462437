// Copies one run of channels after the other until the output is full. The output's count decides
// how many pixels that are; the inputs' heights and widths are not looked at.
#include "layers/ConcatLayer.h"

#include <algorithm>
#include <cstring>
#include <string>
#include <vector>

#include "graph/PrimitiveBuilder.h"
#include "graph/Workspace.h"

namespace ravu {
namespace {

constexpr std::size_t kTaskFloats = std::size_t{1} << 15;  // of the output, about

std::uint64_t total_channels(const ConcatLayer& layer) {
  std::uint64_t total = 0;
  for (const Blob* input : layer.inputs) total += input->dims[3];
  return total;
}

bool writes_into_an_input(const ConcatLayer& layer) {
  const float* to = last_output(layer)->data;
  return std::any_of(layer.inputs.begin(), layer.inputs.end(),
                     [&](const Blob* input) { return input->data == to; });
}

// Pixels [first, end) of the output, whose last one may be cut.
void copy_pixels(const ConcatLayer& layer, std::size_t first, std::size_t end) {
  const Blob& output = *last_output(layer);
  const std::size_t start = first * total_channels(layer);
  float* to = output.data + start;
  std::size_t left = output.count - start;
  for (std::size_t pixel = first; pixel < end; ++pixel) {
    for (const Blob* input : layer.inputs) {
      const std::size_t channels = input->dims[3];
      const std::size_t run = std::min(channels, left);
      if (run == 0) continue;
      // The output may be one of the inputs.
      std::memmove(to, input->data + pixel * channels, run * sizeof(float));
      to += run;
      left -= run;
    }
  }
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
  const std::uint64_t pixel = total_channels(*this);
  if (output->count == 0) return true;
  const std::size_t pixels = (output->count + pixel - 1) / pixel;
  if (writes_into_an_input(*this)) {
    copy_pixels(*this, 0, pixels);
    return true;
  }
  const std::size_t some = std::max<std::size_t>(kTaskFloats / pixel, 1);
  workspace->workers().run((pixels + some - 1) / some, [&](std::size_t task, std::size_t) {
    copy_pixels(*this, task * some, std::min(pixels, (task + 1) * some));
  });
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
