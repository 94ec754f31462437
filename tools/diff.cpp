// Both networks run first, and all outputs are kept; then they are compared.
#include "diff.h"

#include <algorithm>
#include <cmath>
#include <limits>
#include <map>
#include <span>
#include <utility>

#include "common/failure.h"
#include "common/image_file.h"
#include "common/model.h"
#include "common/model_card.h"
#include "common/printing.h"
#include "json.h"

namespace ravu::tools {
namespace {

const std::vector<std::uint32_t> kDefaultModes{0};
constexpr double kFar = std::numeric_limits<double>::infinity();

// Columns of a table of detections: image, label, score and the box's corners.
constexpr std::size_t kRowFloats = 7;
constexpr std::size_t kScore = 2;

bool has_image(const DiffOptions& options) {
  return options.files.size() > 1 && is_picture_file(options.files.back());
}

std::size_t model_count(const DiffOptions& options) {
  return options.files.size() - (has_image(options) ? 1 : 0);
}

double difference(float a, float b) {
  if (a == b || (std::isnan(a) && std::isnan(b))) return 0;
  const double apart = std::abs(double{a} - double{b});
  return std::isnan(apart) ? kFar : apart;
}

using Row = std::span<const float>;

// The rows of a table that hold a detection.
std::vector<Row> rows_of(const std::vector<float>& table) {
  std::vector<Row> rows;
  for (std::size_t i = 0; i + kRowFloats <= table.size(); i += kRowFloats) {
    const Row row(table.data() + i, kRowFloats);
    if (row[kScore] > 0) rows.push_back(row);
  }
  return rows;
}

double row_difference(Row a, Row b) {
  double largest = 0;
  for (std::size_t i = kScore; i < kRowFloats; ++i) {
    largest = std::max(largest, difference(a[i], b[i]));
  }
  return largest;
}

double table_difference(const std::vector<float>& first, const std::vector<float>& second) {
  double largest = 0;
  std::vector<Row> others = rows_of(second);
  for (const Row row : rows_of(first)) {
    double nearest = kFar;
    auto partner = others.end();
    for (auto other = others.begin(); other != others.end(); ++other) {
      if ((*other)[0] != row[0] || (*other)[1] != row[1]) continue;
      const double apart = row_difference(row, *other);
      if (partner != others.end() && apart >= nearest) continue;
      nearest = apart;
      partner = other;
    }
    largest = std::max(largest, partner == others.end() ? double{row[kScore]} : nearest);
    if (partner != others.end()) others.erase(partner);
  }
  for (const Row row : others) largest = std::max(largest, double{row[kScore]});
  return largest;
}

// The n-th layer that writes a Blob of this name.
using Key = std::pair<std::string, std::uint32_t>;

std::string title_of(const LayerOutput& layer) {
  return layer.class_name + ' ' + (layer.name.empty() ? "-" : layer.name);
}

std::vector<float> input_values(const DiffOptions& options, const ModelSource& model) {
  const auto network = open_model(model);
  if (!has_image(options)) return seeded_pixels(network->input->count);
  check_takes_pictures(*network, model.path);
  const std::string& path = options.files.back();
  const ModelCard card = read_card(model.path, root_tag(model.image.get()));
  try {
    return to_input(read_picture(path), *network->input, obey_card(options.input, card));
  } catch (const Failure& failure) {
    throw Failure(path + ": " + failure.what());
  }
}

void check_same_input(const ModelSource& first, const ModelSource& second) {
  const auto wanted = open_model(first)->input->dims;
  const auto taken = open_model(second)->input->dims;
  if (taken == wanted) return;
  throw Failure(second.path + ": takes " + dims_text(taken) + ", but " + first.path + " takes " +
                dims_text(wanted));
}

std::string side_text(const DiffSide& side) {
  return printable(side.model) + ", run mode " + std::to_string(side.mode) + '\n';
}

std::string layers_text(const DiffReport& report) {
  using enum Table::Align;
  Table table({{"index", kRight},
               {"class"},
               {"output"},
               {"shape"},
               {"error", kRight},
               {"range", kRight},
               {"error/range", kRight},
               {""}});
  for (const LayerDifference& layer : report.layers) {
    const bool compared = layer.problem.empty();
    const auto number = [&](double value) { return compared ? rounded(value) : "-"; };
    table.add_row({std::to_string(layer.index), layer.class_name,
                   layer.output.empty() ? "-" : printable(layer.output), dims_text(layer.shape),
                   number(layer.error), number(layer.range), number(layer.relative()),
                   layer.above ? "above " + rounded(report.tolerance) : layer.problem});
  }
  return table.text();
}

std::string verdict_text(const DiffReport& report) {
  const std::string limit = rounded(report.tolerance) + " of their range";
  if (!report.first_above) return "all layers agree within " + limit + '\n';
  const LayerDifference& layer = report.layers[*report.first_above];
  return "the first layer above " + limit + " is " + std::to_string(layer.index) + ": " +
         layer.class_name + ' ' + printable(layer.output) + '\n';
}

std::string text_of(const DiffReport& report) {
  std::string text = "first    " + side_text(report.first) + "second   " +
                     side_text(report.second) + "input    " +
                     (report.image.empty() ? "seeded values" : printable(report.image)) + "\n\n" +
                     layers_text(report) + '\n';
  for (const std::string& title : report.only_in_first) {
    text += "only in the first: " + printable(title) + '\n';
  }
  for (const std::string& title : report.only_in_second) {
    text += "only in the second: " + printable(title) + '\n';
  }
  return text + verdict_text(report);
}

}  // namespace

bool is_conversion_source(const std::string& path) {
  return path.ends_with(".onnx") || path.ends_with(".prototxt");
}

std::string misuse_of(const DiffOptions& options) {
  const std::size_t models = model_count(options);
  const std::string& last = options.files.back();
  if (models == 1) {
    return options.modes.size() == 2 ? "" : "one model is compared in two run modes: --mode twice";
  }
  if (models == 2 && options.modes.size() < 2) return "";
  const std::string hint = has_image(options) ? "" : " (" + last + " is no JPEG or PNG file)";
  return models == 2 ? "two models are compared in one run mode" + hint
                     : "more than two models" + hint;
}

LayerDifference compare_outputs(const LayerOutput& first, const LayerOutput& second) {
  LayerDifference result{};
  result.class_name = first.class_name;
  result.output = first.name;
  result.shape = first.shape;
  result.problem = first.problem.empty() ? second.problem : first.problem;
  if (!result.problem.empty() || (first.values.empty() && second.values.empty())) return result;
  if (first.values.size() != second.values.size()) {
    result.error = kFar;
    return result;
  }
  if (first.class_name == "detectionout" && second.class_name == "detectionout") {
    result.error = table_difference(first.values, second.values);
    result.range = 1;
    return result;
  }
  float least = std::numeric_limits<float>::infinity();
  float most = -least;
  for (std::size_t i = 0; i < first.values.size(); ++i) {
    result.error = std::max(result.error, difference(first.values[i], second.values[i]));
    if (!std::isfinite(first.values[i])) continue;
    least = std::min(least, first.values[i]);
    most = std::max(most, first.values[i]);
  }
  result.range = most > least ? double{most} - double{least} : 0;
  return result;
}

DiffReport compare_networks(const std::vector<LayerOutput>& first,
                            const std::vector<LayerOutput>& second, double tolerance) {
  DiffReport report;
  report.tolerance = tolerance;
  std::map<Key, const LayerOutput*> others;
  for (const LayerOutput& layer : second) others[{layer.name, layer.writer}] = &layer;
  for (std::size_t i = 0; i < first.size(); ++i) {
    const auto other = others.find({first[i].name, first[i].writer});
    if (other == others.end()) {
      report.only_in_first.push_back(title_of(first[i]));
      continue;
    }
    LayerDifference layer = compare_outputs(first[i], *other->second);
    others.erase(other);
    layer.index = i;
    layer.above = layer.problem.empty() && !(layer.relative() <= tolerance);
    if (layer.above && !report.first_above) report.first_above = report.layers.size();
    report.layers.push_back(std::move(layer));
  }
  for (const LayerOutput& layer : second) {
    const auto left = others.find({layer.name, layer.writer});
    if (left != others.end() && left->second == &layer) {
      report.only_in_second.push_back(title_of(layer));
    }
  }
  if (report.layers.empty()) throw Failure("the models have no layer in common");
  return report;
}

bool run_diff(const DiffOptions& options) {
  set_threads(options.threads);
  std::vector<ModelSource> models;
  for (std::size_t i = 0; i < model_count(options); ++i) {
    const std::string& path = options.files[i];
    models.push_back({path, read_model_file(path), options.channel_mean});
  }
  const std::vector<std::uint32_t> modes = options.modes.empty() ? kDefaultModes : options.modes;
  const std::vector<float> input = input_values(options, models.front());
  check_same_input(models.front(), models.back());
  DiffReport report =
      compare_networks(layer_outputs(models.front(), modes.front(), input),
                       layer_outputs(models.back(), modes.back(), input), options.tolerance);
  report.first = {models.front().path, modes.front()};
  report.second = {models.back().path, modes.back()};
  if (has_image(options)) report.image = options.files.back();
  print(options.json ? to_json(report) : text_of(report));
  return !report.first_above;
}

}  // namespace ravu::tools
