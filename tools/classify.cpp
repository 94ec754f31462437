// Text results are printed as they come; JSON is one array, so it waits for the last image.
#include "classify.h"

#include <algorithm>
#include <cmath>
#include <numeric>

#include "common/contact_sheet.h"
#include "common/failure.h"
#include "common/image_file.h"
#include "common/input_files.h"
#include "common/model.h"
#include "common/printing.h"
#include "json.h"

namespace ravu::tools {
namespace {

constexpr std::uint32_t kTileSide = 216;  // of the sheet's pictures

// The scores of the first, and only, image of the batch.
std::span<const float> scores_of(const Network& network) {
  const Blob& output = *network.outputs.back();
  if (output.data == nullptr || output.dims[0] == 0) return {};
  return {output.data, output.count / output.dims[0]};
}

void check_classifier(const Network& network, const ClassifyOptions& options) {
  if (is_detector(network)) {
    throw Failure(options.model + ": is a detector; its boxes are no scores of classes");
  }
  check_takes_pictures(network, options.model);
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
  Tile tile{make_thumbnail(picture, kTileSide), "", ""};
  if (!result.predictions.empty()) {
    tile.title = result.predictions.front().label;
    tile.subtitle = fixed(result.predictions.front().score, 4);
  }
  return tile;
}

Classification classify(Network& network, std::span<char* const> labels, const std::string& path,
                        const Picture& picture, const ClassifyOptions& options) {
  feed(network, to_input(picture, *network.input, options.input));
  run(network, options.mode);
  return {path, best_predictions(scores_of(network), labels, options.top)};
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
    best.push_back({label_of(labels, *index), *index, scores[*index]});
  }
  return best;
}

bool run_classify(const ClassifyOptions& given) {
  ClassifyOptions options = given;
  InputFiles(options.images, options.model).check_output(options.sheet);
  set_threads(options.threads);
  FileImage image = read_model_file(options.model);
  const auto network = open_model(options.model, root_tag(image.get()), options.channel_mean);
  const ModelCard card = read_card(options.model, root_tag(image.get()));
  image.reset();
  options.input = obey_card(options.input, card);
  const auto labels = labels_by_score(*network, card);
  check_classifier(*network, options);
  set_up(*network, options.mode);

  bool all_read = true;
  std::vector<Classification> results;
  std::vector<Tile> tiles;
  for (const std::string& path : options.images) {
    const auto picture = read_or_report(path);
    if (!picture) {
      all_read = false;
      continue;
    }
    const Classification result = classify(*network, labels, path, *picture, options);
    if (!options.sheet.empty() && tiles.size() < kMaxTiles) {
      tiles.push_back(make_tile(*picture, result));
    }
    if (options.json) {
      results.push_back(result);
    } else {
      print(text_of(result));
    }
  }
  if (options.json) print(to_json(results));
  if (!options.sheet.empty()) write_png(options.sheet, draw_contact_sheet(tiles, kTileSide));
  return all_read;
}

}  // namespace ravu::tools
