// Rows of a detection output become boxes in pixels of the picture, which are listed and drawn.
#include "detect.h"

#include <algorithm>
#include <filesystem>

#include "common/annotation.h"
#include "common/failure.h"
#include "common/image_file.h"
#include "common/input_files.h"
#include "common/model.h"
#include "common/printing.h"
#include "json.h"

namespace ravu::tools {
namespace {

namespace fs = std::filesystem;

constexpr std::size_t kRowFloats = 7;
constexpr std::uint32_t kTileSide = 448;  // of the sheet's pictures

void check_detector(const Network& network, const DetectOptions& options) {
  check_takes_pictures(network, options.model);
  if (!is_detector(network)) {
    throw Failure(options.model + ": is no detector: its last layer is no detection output");
  }
  if (last_output(*network.layers.back())->count < kRowFloats) {
    throw Failure(options.model + ": the detection output has no rows: \"keep_top_k\" must be > 0");
  }
}

void make_folder(const std::string& folder) {
  std::error_code error;
  fs::create_directories(folder, error);
  if (error) throw Failure("cannot make the folder " + folder + ": " + error.message());
}

ImageDetections detect(const PictureModel& model, const std::string& path, const Picture& picture,
                       const DetectOptions& options) {
  show(model, picture, options.mode);
  const Blob& output = *last_output(*model.network->layers.back());
  std::span<const float> rows;
  if (output.data != nullptr) rows = {output.data, output.count};
  const Area seen = seen_area(picture, *model.network, model.input.framing);
  return {path, picture.width, picture.height,
          objects_of(rows, model.labels, seen, picture.width, picture.height, options.threshold)};
}

std::string text_of(const ImageDetections& result) {
  std::string text;
  for (const FoundObject& object : result.objects) {
    text +=
        printable(result.image) + '\t' + printable(object.label) + '\t' + fixed(object.score, 6);
    for (const double side : {object.xmin, object.ymin, object.xmax, object.ymax}) {
      text += '\t' + fixed(side, 1);
    }
    text += '\n';
  }
  return text;
}

// The boxes with their names, in pixels of a frame that covers `area` of the picture.
std::vector<Mark> marks_of(const ImageDetections& result, const Area& area, std::uint32_t width,
                           std::uint32_t height) {
  const auto x = [&](double value) { return (value - area.x) / area.width * width; };
  const auto y = [&](double value) { return (value - area.y) / area.height * height; };
  std::vector<Mark> marks;
  for (const FoundObject& object : result.objects) {
    marks.push_back({x(object.xmin), y(object.ymin), x(object.xmax), y(object.ymax),
                     object.label + ' ' + fixed(object.score, 2), class_colour(object.index)});
  }
  return marks;
}

// The boxes are drawn after scaling, so that they stay as sharp and their names as large in every
// tile.
Tile make_tile(const Picture& picture, const ImageDetections& result) {
  Tile tile{make_thumbnail(picture, kTileSide), fs::path(result.image).filename().string(),
            std::to_string(result.objects.size()) + " found"};
  const Area area = frame_area(picture, kTileSide, kTileSide, Framing::kLetterbox);
  draw_marks(tile.picture, marks_of(result, area, kTileSide, kTileSide));
  return tile;
}

void write_copy(const std::string& path, Picture picture, const ImageDetections& result) {
  const Area area = frame_area(picture, picture.width, picture.height, Framing::kSquash);
  draw_marks(picture, marks_of(result, area, picture.width, picture.height));
  write_png(path, picture);
}

std::string all_to_json(const std::vector<ImageDetections>& results) {
  return to_json(results);
}

}  // namespace

std::vector<FoundObject> objects_of(std::span<const float> rows, std::span<char* const> labels,
                                    const Area& seen, std::uint32_t width, std::uint32_t height,
                                    float threshold) {
  const auto x = [&](float value) {
    return std::clamp<double>(seen.x + double{value} * seen.width, 0, width);
  };
  const auto y = [&](float value) {
    return std::clamp<double>(seen.y + double{value} * seen.height, 0, height);
  };
  std::vector<FoundObject> objects;
  for (; rows.size() >= kRowFloats; rows = rows.subspan(kRowFloats)) {
    const auto row = rows.first(kRowFloats);
    if (std::all_of(row.begin(), row.end(), [](float value) { return value == 0; })) break;
    const auto index = static_cast<std::uint32_t>(row[1]);
    const FoundObject object{.label = label_of(labels, index),
                             .index = index,
                             .score = row[2],
                             .xmin = x(row[3]),
                             .ymin = y(row[4]),
                             .xmax = x(row[5]),
                             .ymax = y(row[6])};
    if (!(object.score >= threshold)) continue;
    if (object.xmin < object.xmax && object.ymin < object.ymax) objects.push_back(object);
  }
  std::stable_sort(objects.begin(), objects.end(),
                   [](const FoundObject& a, const FoundObject& b) { return a.score > b.score; });
  return objects;
}

bool run_detect(const DetectOptions& options) {
  const InputFiles inputs(options.images, options.model);
  const PictureModel model = open_picture_model(options, inputs);
  check_detector(*model.network, options);
  set_up(*model.network, options.mode);
  std::vector<std::string> copies;
  if (!options.out.empty()) {
    make_folder(options.out);
    copies = name_copies(options.out, options.images, inputs, options.sheet);
  }
  const auto look = [&](std::size_t i, const Picture& picture) {
    ImageDetections result = detect(model, options.images[i], picture, options);
    if (!copies.empty()) write_copy(copies[i], picture, result);
    return result;
  };
  return run_over_pictures<ImageDetections>(options, kTileSide,
                                            {look, text_of, make_tile, all_to_json});
}

}  // namespace ravu::tools
