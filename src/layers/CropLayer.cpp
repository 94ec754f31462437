// The crop copies whole rows of pixels. Its geometry is that of the loaded model and does not
// follow later changes of the input's height and width.
#include "layers/CropLayer.h"

#include <algorithm>
#include <string>

#include "graph/PrimitiveBuilder.h"

namespace ravu {
namespace {

Shape square_record(std::int32_t size, std::int32_t channels, std::uint32_t layout) {
  return make_shape(size, size, channels, 1, layout).value_or(Shape{{0, 0, 0, 0}, 0, layout});
}

}  // namespace

void CropLayer::place_in_centre(std::int32_t input_size, std::int32_t image_size,
                                std::int32_t channels, std::uint32_t layout) {
  input_record = square_record(input_size, channels, layout);
  reference_record = square_record(image_size, channels, layout);
  const std::int64_t room = std::int64_t{input_size} - image_size;
  column_offset = row_offset = static_cast<std::int32_t>(room >> 1);
}

Fit fits(const CropLayer& layer) {
  const Blob* input = last_input(layer);
  const Blob* output = last_output(layer);
  if (input == nullptr) return {"a crop needs an input"};
  if (output == nullptr || (layer.column_offset == 0 && layer.row_offset == 0)) return {};
  if (layer.column_offset < 0 || layer.row_offset < 0)
    return {"the image is larger than the input"};
  const auto& in = layer.input_record;
  const auto& out = layer.reference_record;
  if (!dims_within_count(*output) || output->dims[1] > out.dims[0] ||
      output->dims[2] > out.dims[1] || output->dims[3] > out.dims[2] ||
      std::uint64_t{input->dims[0]} * out.count > output->count) {
    return {"the output is smaller than the cropped images"};
  }
  if (layer.row_offset + std::uint64_t{output->dims[1]} > in.dims[0] ||
      layer.column_offset + std::uint64_t{output->dims[2]} > in.dims[1] ||
      output->dims[3] > in.dims[2] || std::uint64_t{input->dims[0]} * in.count > input->count) {
    return {"the crop reaches beyond the input"};
  }
  return {};
}

bool CropLayer::Forward(std::uint32_t) {
  const Blob* input = last_input(*this);
  Blob* output = last_output(*this);
  // Kept: with both offsets 0 nothing is copied, though the sizes differ by one.
  if (column_offset == 0 && row_offset == 0) return true;
  if (!has_data(*this) || !fits(*this)) return true;
  const std::size_t run = std::size_t{output->dims[2]} * output->dims[3];
  for (std::size_t b = 0; b < input->dims[0]; ++b) {
    const float* image = input->data + b * input_record.count;
    float* cropped = output->data + b * reference_record.count;
    for (std::size_t r = 0; r < output->dims[1]; ++r) {
      const std::size_t row = row_offset + r;
      const float* from =
          image + (input_record.dims[1] * row + column_offset) * input_record.dims[2];
      std::copy(from, from + run,
                cropped + r * reference_record.dims[1] * reference_record.dims[2]);
    }
  }
  return true;
}

void CropLayer::AddPrimitives(cldnn_topology_impl* topology, cldnn_engine_impl* engine,
                              std::uint32_t data_type, Aliases& aliases) {
  if (!is_wired(*this)) return;
  PrimitiveBuilder::require(fits(*this));
  PrimitiveBuilder builder(*this, topology, engine, data_type, aliases);
  const std::string input = builder.map();
  GpuShape shape = builder.shape(input);
  shape.y = static_cast<std::int32_t>(reference_record.dims[0]);
  shape.x = static_cast<std::int32_t>(reference_record.dims[1]);
  cldnn_crop_desc crop{};
  crop.reference_size = make_tensor(shape.batch, shape.feature, shape.x, shape.y);
  crop.offsets = make_tensor(0, 0, column_offset, row_offset);
  builder.add(cldnn::Kind::kCrop, crop.header, {input}, shape);
}

void CropLayer::Reshape() {
  follow_batch();
}

}  // namespace ravu
