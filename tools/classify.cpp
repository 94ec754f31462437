// The scores of one image after another; see common/picture_run for what is around that.
#include "classify.h"

#include <algorithm>
#include <cmath>
#include <numeric>

#include "common/failure.h"
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

std::string all_to_json(const std::vector<Classification>& results) {
  return to_json(results);
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

bool run_classify(const ClassifyOptions& options) {
  const InputFiles inputs(options.images, options.model);
  const PictureModel model = open_picture_model(options, inputs);
  check_classifier(*model.network, options);
  set_up(*model.network, options.mode);
  const auto classify = [&](std::size_t i, const Picture& picture) -> Classification {
    show(model, picture, options.mode);
    return {options.images[i],
            best_predictions(scores_of(*model.network), model.labels, options.top)};
  };
  return run_over_pictures<Classification>(options, kTileSide,
                                           {classify, text_of, make_tile, all_to_json});
}

}  // namespace ravu::tools
