// The boxes of one cell are the same around every centre, so their sizes are listed once and the
// kernel places them.
#include "layers/PriorBoxLayer.h"

#include <algorithm>
#include <cmath>
#include <iterator>
#include <string>
#include <vector>

#include "graph/PrimitiveBuilder.h"
#include "kernels/convert.h"
#include "kernels/kernels.h"

namespace ravu {
namespace {

using kernels::HalfSides;

bool image_size_is_given(const PriorBoxLayer& layer) {
  return layer.img_h != 0 && layer.img_w != 0;
}

std::uint64_t cells(const Shape& feature_map) {
  return std::uint64_t{feature_map.dims[1]} * feature_map.dims[2];
}

bool is_one(float ratio) {
  return std::abs(static_cast<double>(ratio) - 1.0) < 1e-6;
}

// Boxes that are made for each cell, whatever num_priors says.
std::uint64_t boxes_per_cell(const PriorBoxLayer& layer) {
  const auto ones = std::count_if(layer.aspect_ratios.begin(), layer.aspect_ratios.end(), is_one);
  const std::uint64_t shapes = layer.aspect_ratios.size() - static_cast<std::size_t>(ones);
  return layer.min_sizes.size() * (1 + (layer.max_sizes.empty() ? 0 : 1) + shapes);
}

// Kept: sizes are cut to whole pixels, and the product of two of them is one of 32-bit integers.
HalfSides between(float min_size, float max_size) {
  const auto least = static_cast<std::uint32_t>(kernels::to_int32(min_size));
  const auto most = static_cast<std::uint32_t>(kernels::to_int32(max_size));
  const auto area = static_cast<std::int32_t>(least * most);
  const float half = static_cast<float>(std::sqrt(static_cast<double>(area))) * 0.5F;
  return {half, half};
}

// Kept: `flip` is not asked; the reciprocal of a ratio is a ratio of its own in the list.
std::vector<HalfSides> boxes_of_a_cell(const PriorBoxLayer& layer) {
  std::vector<float> ratios;
  std::remove_copy_if(layer.aspect_ratios.begin(), layer.aspect_ratios.end(),
                      std::back_inserter(ratios), is_one);
  std::vector<HalfSides> boxes;
  boxes.reserve(boxes_per_cell(layer));
  for (std::size_t s = 0; s < layer.min_sizes.size(); ++s) {
    const auto side = static_cast<float>(kernels::to_int32(layer.min_sizes[s]));
    boxes.push_back({side * 0.5F, side * 0.5F});
    if (!layer.max_sizes.empty()) {
      boxes.push_back(between(layer.min_sizes[s], layer.max_sizes[s]));
    }
    for (const float ratio : ratios) {
      const float root = std::sqrt(ratio);
      boxes.push_back({root * side * 0.5F, side / root * 0.5F});
    }
  }
  return boxes;
}

kernels::PriorGrid grid_of(const PriorBoxLayer& l, const Blob& map) {
  const auto size = [](std::uint32_t n) {
    return static_cast<float>(static_cast<std::int32_t>(n));
  };
  const bool given = image_size_is_given(l);
  const float height = size(given ? l.img_h : l.inputs[1]->dims[1]);
  const float width = size(given ? l.img_w : l.inputs[1]->dims[2]);
  const bool steps_given = l.step_h != 0 && l.step_w != 0;
  return {.rows = map.dims[1],
          .columns = map.dims[2],
          .image_height = height,
          .image_width = width,
          .step_y = steps_given ? size(l.step_h) : height / size(map.dims[1]),
          .step_x = steps_given ? size(l.step_w) : width / size(map.dims[2]),
          .offset = l.offset};
}

void write_variances(const PriorBoxLayer& layer, std::uint64_t cell_count, std::uint64_t row,
                     float* variances) {
  if (layer.variances.size() < 2) {
    std::fill_n(variances, row, layer.variances[0]);
    return;
  }
  // Kept: one group for each cell, not for each box, so most of the row stays as it is.
  for (std::uint64_t c = 0; c < cell_count; ++c) {
    std::copy_n(layer.variances.begin(), 4, variances + 4 * c);
  }
}

// clDNN wants the 1 in front, and reciprocals of its own account. Those are added only where
// num_priors counts them: elsewhere the list has them as ratios, in an order that the boxes follow.
std::vector<float> gpu_ratios(const PriorBoxLayer& layer) {
  std::vector<float> ratios{1.0F};
  std::remove_copy_if(layer.aspect_ratios.begin(), layer.aspect_ratios.end(),
                      std::back_inserter(ratios), is_one);
  if (!layer.flip || boxes_per_cell(layer) == layer.num_priors) return ratios;
  std::vector<float> completed{1.0F};
  for (const float ratio : ratios) {
    const bool listed = std::any_of(completed.begin(), completed.end(), [&](float other) {
      return std::abs(static_cast<double>(ratio) - other) < 1e-6;
    });
    if (!listed) completed.insert(completed.end(), {ratio, 1.0F / ratio});
  }
  return completed;
}

}  // namespace

std::optional<Shape> prior_box_shape(const PriorBoxLayer& layer, const Shape& feature_map,
                                     std::uint32_t layout) {
  if (cells(feature_map) > kMaxCount) return std::nullopt;
  const std::uint64_t boxes = cells(feature_map) * layer.num_priors;
  if (boxes > kMaxCount) return std::nullopt;
  return make_shape(1, 2, 1, static_cast<std::int64_t>(boxes * 4), layout);
}

Fit fits(const PriorBoxLayer& layer) {
  if (layer.inputs.empty()) return {"prior boxes need a feature map"};
  if (!image_size_is_given(layer) && layer.inputs.size() < 2) {
    return {"without img_h and img_w, prior boxes need the image as second input"};
  }
  if (layer.variances.empty() || layer.variances.size() == 2 || layer.variances.size() == 3) {
    return {"variance must hold one value, or four"};
  }
  if (!layer.max_sizes.empty() && layer.max_sizes.size() < layer.min_sizes.size()) {
    return {"max_size must hold as many values as min_size, or none"};
  }
  const Blob* output = last_output(layer);
  if (output == nullptr) return {};
  const std::uint64_t cell_count = cells(*layer.inputs.front());
  const std::uint64_t row = output->dims[3];
  if (cell_count > kMaxCount || boxes_per_cell(layer) > kMaxCount ||
      cell_count * boxes_per_cell(layer) * 4 > output->count) {
    return {"num_priors: the output has no room for the boxes"};
  }
  if (row + (layer.variances.size() < 2 ? row : 4 * cell_count) > output->count) {
    return {"num_priors: the output has no room for the variances"};
  }
  return {};
}

bool PriorBoxLayer::Setup(std::int32_t, std::vector<BlobPtr>&) {
  AllocateBlobs(/*in_place=*/false);
  const Blob* output = last_output(*this);
  if (output == nullptr || output->data == nullptr || !fits(*this)) return true;
  const Blob& map = *inputs.front();
  const std::uint64_t row = output->dims[3];
  if (cells(map) > 0 && boxes_per_cell(*this) > 0) {
    const auto boxes = boxes_of_a_cell(*this);
    kernels::prior_boxes(grid_of(*this, map), boxes.data(), boxes.size(), output->data);
  }
  if (clip) kernels::clip_to_one(output->data, row);
  write_variances(*this, cells(map), row, output->data + row);
  return true;
}

void PriorBoxLayer::AddPrimitives(cldnn_topology_impl* topology, cldnn_engine_impl* engine,
                                  std::uint32_t data_type, Aliases& aliases) {
  if (!is_wired(*this)) return;
  PrimitiveBuilder::require(fits(*this));
  PrimitiveBuilder builder(*this, topology, engine, data_type, aliases);
  const std::string map = builder.map(0);
  const std::vector<float> ratios = gpu_ratios(*this);
  cldnn_prior_box_desc boxes{};
  const bool given = image_size_is_given(*this);
  const auto height = static_cast<std::int32_t>(given ? img_h : inputs[1]->dims[1]);
  const auto width = static_cast<std::int32_t>(given ? img_w : inputs[1]->dims[2]);
  boxes.image_size = make_tensor(height, height, width, height);
  std::fill_n(boxes.image_size.sizes + 4, 4, height);
  boxes.min_sizes = {min_sizes.data(), min_sizes.size()};
  boxes.max_sizes = {max_sizes.data(), max_sizes.empty() ? 0 : min_sizes.size()};
  boxes.aspect_ratios = {ratios.data(), ratios.size()};
  boxes.flip = flip;
  boxes.clip = clip;
  boxes.variances = {variances.data(), variances.size() < 2 ? 1U : 4U};
  boxes.step_width = static_cast<float>(static_cast<std::int32_t>(step_w));
  boxes.step_height = static_cast<float>(static_cast<std::int32_t>(step_h));
  boxes.offset = offset;
  const std::size_t per_cell = ratios.size() * min_sizes.size() + boxes.max_sizes.size;
  const std::uint64_t row = cells(*inputs.front()) * per_cell * 4;
  builder.add(cldnn::Kind::kPriorBox, boxes.header, {map},
              GpuShape{1, 2, 1, to_size(static_cast<std::int64_t>(row)), CLDNN_FORMAT_BFYX});
}

void PriorBoxLayer::Reshape() {}

}  // namespace ravu
