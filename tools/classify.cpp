// Text results are printed as they come; JSON is one array, so it waits for the last image.
#include "classify.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <numeric>

#include "common/contact_sheet.h"
#include "common/failure.h"
#include "common/image_file.h"
#include "common/model.h"
#include "common/printing.h"
#include "json.h"
#include "layers/DetectionOutputLayer.h"

namespace ravu::tools {
namespace {

constexpr float kMidGrey = 128.0F;

// The picture as the network wants it: its size, its channels, their order.
std::vector<float> prepare(const Picture& picture, const Shape& input,
                           const ClassifyOptions& options) {
  std::vector<float> rgb = frame(picture, input.dims[2], input.dims[1], options.framing, kMidGrey);
  if (input.dims[3] == 1) {
    const std::size_t n = rgb.size() / 3;
    for (std::size_t i = 0; i < n; ++i) {
      // Luma as in ITU-R BT.601.
      rgb[i] = 0.299F * rgb[3 * i] + 0.587F * rgb[3 * i + 1] + 0.114F * rgb[3 * i + 2];
    }
    rgb.resize(n);
  } else if (options.bgr) {
    for (std::size_t i = 0; i < rgb.size(); i += 3) std::swap(rgb[i], rgb[i + 2]);
  }
  return rgb;
}

// The scores of the first, and only, image of the batch.
std::span<const float> scores_of(const Network& network) {
  const Blob& output = *network.outputs.back();
  if (output.data == nullptr || output.dims[0] == 0) return {};
  return {output.data, output.count / output.dims[0]};
}

void check_classifier(const Network& network, const ClassifyOptions& options) {
  if (network.outputs.empty()) throw Failure(options.model + ": the network has no output");
  if (dynamic_cast<const DetectionOutputLayer*>(network.layers.back().get()) != nullptr) {
    throw Failure(options.model + ": is a detector; its boxes are no scores of classes");
  }
  const auto& dims = network.input->dims;
  if (dims[1] == 0 || dims[2] == 0) throw Failure(options.model + ": the input has no pixels");
  if (dims[3] != 1 && dims[3] != 3) {
    throw Failure(options.model + ": wants images of " + std::to_string(dims[3]) +
                  " channels; only 1 and 3 can be fed from image files");
  }
}

std::string text_of(const Classification& result) {
  std::string text;
  std::size_t rank = 0;
  for (const Prediction& prediction : result.predictions) {
    text += printable(result.image) + '\t' + std::to_string(++rank) + '\t' +
            fixed(prediction.score, 6) + '\t' + printable(prediction.label) + '\n';
  }
  return text;
}

Tile make_tile(const Picture& picture, const Classification& result) {
  Tile tile{make_thumbnail(picture), "", ""};
  if (!result.predictions.empty()) {
    tile.title = result.predictions.front().label;
    tile.subtitle = fixed(result.predictions.front().score, 4);
  }
  return tile;
}

Classification classify(Network& network, const std::string& path, const Picture& picture,
                        const ClassifyOptions& options) {
  feed(network, prepare(picture, *network.input, options));
  run(network, options.mode);
  return {path, best_predictions(scores_of(network), network.labels, options.top)};
}

}  // namespace

std::vector<Prediction> best_predictions(std::span<const float> scores,
                                         std::span<char* const> labels, std::uint32_t top) {
  std::vector<std::uint32_t> order(scores.size());
  std::iota(order.begin(), order.end(), 0U);
  const auto better = [&](std::uint32_t a, std::uint32_t b) {
    const bool a_counts = !std::isnan(scores[a]);
    const bool b_counts = !std::isnan(scores[b]);
    if (a_counts != b_counts) return a_counts;
    if (a_counts && scores[a] != scores[b]) return scores[a] > scores[b];
    return a < b;
  };
  const auto n = static_cast<std::ptrdiff_t>(std::min<std::size_t>(top, order.size()));
  std::partial_sort(order.begin(), order.begin() + n, order.end(), better);
  std::vector<Prediction> best;
  for (auto index = order.begin(); index != order.begin() + n; ++index) {
    const bool named = *index < labels.size() && labels[*index][0] != '\0';
    best.push_back({named ? labels[*index] : std::to_string(*index), *index, scores[*index]});
  }
  return best;
}

bool run_classify(const ClassifyOptions& options) {
  set_threads(options.threads);
  const auto network = open_model(options.model, options.channel_mean, /*batch=*/1);
  check_classifier(*network, options);
  set_up(*network, options.mode);

  bool all_read = true;
  std::vector<Classification> results;
  std::vector<Tile> tiles;
  for (const std::string& path : options.images) {
    Picture picture;
    try {
      picture = read_picture(path);
    } catch (const Failure& failure) {
      std::fprintf(stderr, "ravu: %s: %s\n", path.c_str(), failure.what());
      all_read = false;
      continue;
    }
    const Classification result = classify(*network, path, picture, options);
    if (!options.sheet.empty() && tiles.size() < kMaxTiles) {
      tiles.push_back(make_tile(picture, result));
    }
    if (options.json) {
      results.push_back(result);
    } else {
      print(text_of(result));
    }
  }
  if (options.json) print(to_json(results));
  if (!options.sheet.empty()) write_png(options.sheet, draw_contact_sheet(tiles));
  return all_read;
}

}  // namespace ravu::tools
