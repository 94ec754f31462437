// A network whose input is larger than its image begins with a crop layer of the loader's.
#include "common/picture_input.h"

#include <cstdio>
#include <utility>

#include "common/failure.h"
#include "common/image_file.h"
#include "layers/CropLayer.h"

namespace ravu::tools {
namespace {

constexpr float kMidGrey = 128.0F;

}  // namespace

void check_takes_pictures(const Network& network, const std::string& model) {
  if (network.outputs.empty()) throw Failure(model + ": the network has no output");
  const auto& dims = network.input->dims;
  if (dims[1] == 0 || dims[2] == 0) throw Failure(model + ": the input has no pixels");
  if (dims[3] != 1 && dims[3] != 3) {
    throw Failure(model + ": wants images of " + std::to_string(dims[3]) +
                  " channels; only 1 and 3 can be fed from image files");
  }
}

PictureInput obey_card(PictureInput input, const ModelCard& card) {
  if (!input.framing_given && card.framing) input.framing = *card.framing;
  return input;
}

std::optional<Picture> read_or_report(const std::string& path) {
  try {
    return read_picture(path);
  } catch (const Failure& failure) {
    std::fprintf(stderr, "ravu: %s: %s\n", path.c_str(), failure.what());
    return std::nullopt;
  }
}

std::vector<float> to_input(const Picture& picture, const Shape& input, const PictureInput& how) {
  std::vector<float> rgb = frame(picture, input.dims[2], input.dims[1], how.framing, kMidGrey);
  if (input.dims[3] == 1) {
    const std::size_t n = rgb.size() / 3;
    for (std::size_t i = 0; i < n; ++i) {
      // Luma as in ITU-R BT.601.
      rgb[i] = 0.299F * rgb[3 * i] + 0.587F * rgb[3 * i + 1] + 0.114F * rgb[3 * i + 2];
    }
    rgb.resize(n);
  } else if (how.bgr) {
    for (std::size_t i = 0; i < rgb.size(); i += 3) std::swap(rgb[i], rgb[i + 2]);
  }
  return rgb;
}

Area seen_area(const Picture& picture, const Network& network, Framing framing) {
  const double width = network.input->dims[2];
  const double height = network.input->dims[1];
  Area area = frame_area(picture, network.input->dims[2], network.input->dims[1], framing);
  if (network.layers.empty()) return area;
  const auto* crop = dynamic_cast<const CropLayer*>(network.layers.front().get());
  if (crop == nullptr) return area;
  area.x += area.width * crop->column_offset / width;
  area.y += area.height * crop->row_offset / height;
  area.width *= crop->reference_record.dims[1] / width;
  area.height *= crop->reference_record.dims[0] / height;
  return area;
}

}  // namespace ravu::tools
