// One image at a time, through scratch memory where input and output share storage.
#include "layers/PermuteLayer.h"

#include <algorithm>
#include <string>
#include <vector>

#include "graph/PrimitiveBuilder.h"
#include "graph/Workspace.h"
#include "kernels/kernels.h"

namespace ravu {
namespace {

constexpr std::array<std::uint32_t, 4> kUnchanged{0, 1, 2, 3};
constexpr std::uint32_t kBatchEntry = 3;

std::size_t image_floats(const Blob& blob) {
  // Without images the other dims may be anything.
  return blob.dims[0] == 0 ? 0 : std::size_t{blob.dims[1]} * blob.dims[2] * blob.dims[3];
}

void reserve_scratch(PermuteLayer& layer) {
  if (!moves_values(layer) || last_output(layer) == nullptr || !fits(layer)) return;
  layer.workspace->reserve(image_floats(*last_input(layer)));
}

kernels::AxisOrder axis_order(const PermuteLayer& layer, const Blob& input) {
  kernels::AxisOrder axes{{input.dims[1], input.dims[2], input.dims[3]}, {}};
  std::size_t i = 0;
  for (const std::uint32_t entry : layer.order) {
    if (entry != kBatchEntry) axes.order[i++] = entry;
  }
  return axes;
}

Fit entries_are_valid(const PermuteLayer& layer) {
  if (std::is_permutation(layer.order.begin(), layer.order.end(), kUnchanged.begin())) return {};
  return {"permute_order must hold 0, 1, 2 and 3 once each"};
}

// clDNN's rule for the sizes of a permuted tensor, in its order batch, feature, x, y.
GpuShape permuted(const GpuShape& in, const std::array<std::uint32_t, 4>& order) {
  const std::array<std::int32_t, 4> sizes{in.batch, in.feature, in.x, in.y};
  return {sizes[order[0]], sizes[order[1]], sizes[order[2]], sizes[order[3]], in.format};
}

}  // namespace

bool moves_values(const PermuteLayer& layer) {
  return layer.need_permute && layer.order != kUnchanged;
}

Fit fits(const PermuteLayer& layer) {
  const Blob* input = last_input(layer);
  const Blob* output = last_output(layer);
  if (input == nullptr) return {"permute needs an input"};
  if (!moves_values(layer)) return {};
  const Fit entries = entries_are_valid(layer);
  if (!entries) return entries;
  if (output == nullptr) return {};
  if (!dims_within_count(*input)) return {"dims describe more than the tensor holds"};
  if (image_floats(*input) * input->dims[0] > output->count) {
    return {"the output is smaller than the input"};
  }
  return {};
}

bool PermuteLayer::Forward(std::uint32_t) {
  const Blob* input = last_input(*this);
  Blob* output = last_output(*this);
  if (!moves_values(*this) || !has_data(*this) || !fits(*this)) return true;
  const std::size_t image = image_floats(*input);
  const bool shared = input->data == output->data;
  if (shared && image > workspace->size()) return true;
  const auto axes = axis_order(*this, *input);
  for (std::size_t n = 0; image > 0 && n < input->dims[0]; ++n) {
    const float* from = input->data + n * image;
    if (shared) from = std::copy(from, from + image, workspace->scratch()) - image;
    kernels::permute(axes, from, output->data + n * image, workspace->workers());
  }
  return true;
}

void PermuteLayer::AddPrimitives(cldnn_topology_impl* topology, cldnn_engine_impl* engine,
                                 std::uint32_t data_type, Aliases& aliases) {
  if (!is_wired(*this)) return;
  PrimitiveBuilder::require(fits(*this));
  PrimitiveBuilder builder(*this, topology, engine, data_type, aliases);
  PrimitiveBuilder::require(entries_are_valid(*this));
  const std::string input = builder.map();
  const GpuShape in = builder.shape(input);
  const std::vector<std::uint16_t> entries(order.begin(), order.end());
  cldnn_permute_desc permute{};
  permute.order = {entries.data(), entries.size()};
  builder.add(cldnn::Kind::kPermute, permute.header, {input}, permuted(in, order));
  // clDNN moves its labels with the values; the Blob keeps its shape.
  builder.relabel_output(in);
}

bool PermuteLayer::Setup(std::int32_t, std::vector<BlobPtr>&) {
  AllocateBlobs(/*in_place=*/!moves_values(*this));
  reserve_scratch(*this);
  return true;
}

void PermuteLayer::Reshape() {
  BaseLayer::Reshape();
  reserve_scratch(*this);
}

}  // namespace ravu
