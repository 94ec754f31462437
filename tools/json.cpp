// The only file that knows the JSON library, which is slow to compile.
#include "json.h"

#include <nlohmann/json.hpp>

#include "common/peak.h"
#include "common/printing.h"

namespace ravu::tools {
namespace {

using Json = nlohmann::ordered_json;

std::string text_of(const Json& json) {
  return json.dump(2, ' ', /*ensure_ascii=*/false, Json::error_handler_t::replace) + '\n';
}

Json json_of(const Timing& time) {
  return {{"min_ms", time.minimum * 1e3},
          {"lower_quartile_ms", time.lower * 1e3},
          {"median_ms", time.median * 1e3},
          {"upper_quartile_ms", time.upper * 1e3},
          {"max_ms", time.maximum * 1e3}};
}

// With the speeds that go with the times.
Json json_of(const Timing& time, std::uint64_t multiply_adds) {
  Json json = json_of(time);
  json["multiply_adds"] = multiply_adds;
  json["gflops_at_min"] = gflops(multiply_adds, time.minimum);
  json["gflops_at_median"] = gflops(multiply_adds, time.median);
  return json;
}

Json json_of(const TagNode& node) {
  Json json = Json::object();
  if (!node.key.empty()) json["key"] = node.key;
  json["type"] = node.type;
  json["length"] = node.length;
  if (node.type == "dictionary" || node.type == "list") {
    Json children = Json::array();
    for (const TagNode& child : node.children) children.push_back(json_of(child));
    json["children"] = std::move(children);
  } else {
    json["value"] = node.value;
  }
  if (!node.note.empty()) json["note"] = node.note;
  return json;
}

// The text at a path of keys; empty where there is none.
std::string text_at(const Json& json, const char* pointer) {
  const Json::json_pointer place(pointer);
  if (!json.contains(place)) return "";
  const Json& value = json.at(place);
  if (value.is_number_float()) return rounded(value.get<double>());
  return value.is_string() ? value.get<std::string>() : value.dump();
}

std::vector<std::pair<std::string, std::string>> card_lines(const Json& json) {
  std::vector<std::pair<std::string, std::string>> lines;
  const auto sources = json.find("source");
  if (sources != json.end() && sources->is_array()) {
    for (const Json& source : *sources) {
      lines.emplace_back("source",
                         text_at(source, "/name") + ", SHA-256 " + text_at(source, "/sha256"));
    }
  }
  const std::string task = text_at(json, "/task");
  if (!task.empty()) lines.emplace_back("task", task + ", " + text_at(json, "/scores"));
  const std::string fit = text_at(json, "/input/fit");
  if (!fit.empty()) lines.emplace_back("pictures", text_at(json, "/input/order") + ", " + fit);
  const std::string tensors = text_at(json, "/verification/tensors");
  if (!tensors.empty()) {
    lines.emplace_back("verified",
                       tensors + " tensors on " + text_at(json, "/verification/pictures") +
                           " pictures, worst " + text_at(json, "/verification/worst/0/relative") +
                           " of its range");
  }
  return lines;
}

const char* name_of(GpuCandidate::State state) {
  if (state == GpuCandidate::State::kUsed) return "used";
  return state == GpuCandidate::State::kPassedOver ? "not used" : "not tried";
}

// A text that is null where there is nothing to say.
Json text_or_null(const std::string& text) {
  return text.empty() ? Json() : Json(text);
}

Json json_of(const OpenClDevice& device) {
  return {{"name", device.name},
          {"kind", device.kind},
          {"vendor", device.vendor},
          {"version", device.version},
          {"driver", device.driver},
          {"platform", device.platform},
          {"compute_units", device.compute_units},
          {"memory_bytes", device.memory},
          {"refused", text_or_null(device.refused)},
          {"used", device.chosen}};
}

}  // namespace

std::optional<ModelCard> card_from_json(const std::string& text) {
  const Json json = Json::parse(text, nullptr, /*allow_exceptions=*/false);
  if (!json.is_object()) return std::nullopt;
  ModelCard card;
  card.json = text;
  const std::string fit = text_at(json, "/input/fit");
  if (fit == "squash") card.framing = Framing::kSquash;
  if (fit == "crop") card.framing = Framing::kCrop;
  if (fit == "letterbox") card.framing = Framing::kLetterbox;
  const auto offset = json.find("label_offset");
  if (offset != json.end() && offset->is_number_unsigned() &&
      offset->get<std::uint64_t>() <= kMostLabelOffset) {
    card.label_offset = offset->get<std::uint32_t>();
  }
  card.lines = card_lines(json);
  return card;
}

std::string to_json(const std::vector<Classification>& results) {
  Json array = Json::array();
  for (const Classification& result : results) {
    Json predictions = Json::array();
    for (const Prediction& best : result.predictions) {
      predictions.push_back({{"label", best.label}, {"index", best.index}, {"score", best.score}});
    }
    array.push_back({{"image", result.image}, {"predictions", std::move(predictions)}});
  }
  return text_of(array);
}

std::string to_json(const std::vector<ImageDetections>& results) {
  Json array = Json::array();
  for (const ImageDetections& result : results) {
    Json detections = Json::array();
    for (const FoundObject& object : result.objects) {
      detections.push_back({{"label", object.label},
                            {"index", object.index},
                            {"score", object.score},
                            {"box", {object.xmin, object.ymin, object.xmax, object.ymax}}});
    }
    array.push_back({{"image", result.image},
                     {"width", result.width},
                     {"height", result.height},
                     {"detections", std::move(detections)}});
  }
  return text_of(array);
}

std::string to_json(const ModelSummary& summary) {
  Json layers = Json::array();
  for (const LayerLine& layer : summary.layers) {
    layers.push_back({{"index", layers.size()},
                      {"class", layer.class_name},
                      {"output", layer.output},
                      {"shape", layer.shape},
                      {"parameters", layer.costs.parameters},
                      {"multiply_adds", layer.costs.multiply_adds}});
    if (!layer.kernel.empty()) layers.back()["kernel"] = layer.kernel;
  }
  return text_of({{"model", summary.model},
                  {"input", summary.input},
                  {"mean", summary.has_mean},
                  {"mean_subtracted", summary.has_mean && summary.preprocess},
                  {"labels", summary.labels},
                  {"outputs", summary.outputs},
                  {"parameters", summary.total.parameters},
                  {"multiply_adds", summary.total.multiply_adds},
                  {"card", summary.card.json.empty() ? Json() : Json::parse(summary.card.json)},
                  {"layers", std::move(layers)}});
}

std::string to_json(const TagNode& root) {
  return text_of(json_of(root));
}

std::string to_json(const BenchReport& report) {
  Json json = {{"model", report.model},     {"input", report.input},
               {"mode", report.mode},       {"threads", report.threads},
               {"warm_up", report.warm_up}, {"repeats", report.repeats}};
  json["pass"] = json_of(report.pass, report.multiply_adds);
  if (report.reference) {
    json["reference"] = json_of(*report.reference, kReferenceMultiplyAdds);
    json["reference"]["side"] = kReferenceSide;
    json["pass_to_reference_at_min"] = gflops(report.multiply_adds, report.pass.minimum) /
                                       gflops(kReferenceMultiplyAdds, report.reference->minimum);
    json["pass_to_reference_at_median"] = gflops(report.multiply_adds, report.pass.median) /
                                          gflops(kReferenceMultiplyAdds, report.reference->median);
  }
  if (report.peak) json["peak"] = json_of(*report.peak, peak_multiply_adds(report.threads));
  if (!report.layers.empty()) {
    Json layers = Json::array();
    for (const LayerTiming& layer : report.layers) {
      Json entry = {{"index", layers.size()},
                    {"class", layer.class_name},
                    {"output", layer.output},
                    {"shape", layer.shape}};
      if (!layer.kernel.empty()) entry["kernel"] = layer.kernel;
      entry.update(json_of(layer.time, layer.multiply_adds));
      layers.push_back(std::move(entry));
    }
    json["layers"] = std::move(layers);
  }
  return text_of(json);
}

std::string to_json(const LoadReport& report) {
  return text_of({{"model", report.model},
                  {"bytes", report.bytes},
                  {"threads", report.threads},
                  {"repeats", report.repeats},
                  {"read", json_of(report.read)},
                  {"load", json_of(report.load)},
                  {"set_up", json_of(report.set_up)},
                  {"first_pass", json_of(report.first_pass)},
                  {"second_pass", json_of(report.second_pass)}});
}

std::string to_json(const QuantiseReport& report) {
  Json tensors = Json::array();
  for (const TensorError& tensor : report.tensors) {
    tensors.push_back({{"layer", tensor.layer},
                       {"class", tensor.class_name},
                       {"output", tensor.output},
                       {"tensor", tensor.tensor},
                       {"values", tensor.values},
                       {"relative_error", tensor.error},
                       {"accepted", tensor.accepted}});
  }
  Json outputs = Json::array();
  for (const OutputDifference& output : report.outputs) {
    outputs.push_back({{"name", output.name},
                       {"values", output.values},
                       {"relative_difference", output.relative},
                       {"greatest_difference", output.greatest}});
  }
  return text_of({{"model", report.model},
                  {"output", report.output},
                  {"written", report.written},
                  {"max_error", report.max_error},
                  {"was_quantised", report.was_quantised},
                  {"tensors", std::move(tensors)},
                  {"seeded_inputs", kSeededInputs},
                  {"outputs", std::move(outputs)},
                  {"restored_keys", report.restored_keys},
                  {"dropped_records", report.dropped_records},
                  {"bytes_before", report.bytes_before},
                  {"bytes_after", report.bytes_after}});
}

std::string to_json(const DevicesReport& report) {
  Json libraries = Json::array();
  for (const GpuCandidate& candidate : report.gpu_candidates) {
    libraries.push_back({{"file", candidate.file},
                         {"state", name_of(candidate.state)},
                         {"found", text_or_null(candidate.found)},
                         {"reason", text_or_null(candidate.reason)}});
  }
  Json devices = Json::array();
  for (const OpenClDevice& device : report.gpu_devices) devices.push_back(json_of(device));
  return text_of({{"processor",
                   {{"threads", report.threads},
                    {"instruction_set", report.instruction_set},
                    {"blas", report.blas},
                    {"blas_kernel", report.blas_kernel}}},
                  {"fixed_point",
                   {{"ready", report.fixed_point_problem.empty()},
                    {"library", text_or_null(report.fixed_point_file)},
                    {"problem", text_or_null(report.fixed_point_problem)}}},
                  {"gpu",
                   {{"ready", report.gpu_problem.empty()},
                    {"problem", text_or_null(report.gpu_problem)},
                    {"libraries", std::move(libraries)},
                    {"devices", std::move(devices)}}}});
}

std::string to_json(const DiffReport& report) {
  Json layers = Json::array();
  for (const LayerDifference& layer : report.layers) {
    Json entry = {{"index", layer.index},
                  {"class", layer.class_name},
                  {"output", layer.output},
                  {"shape", layer.shape}};
    if (layer.problem.empty()) {
      entry["error"] = layer.error;
      entry["range"] = layer.range;
      entry["relative"] = layer.relative();
      entry["above"] = layer.above;
    } else {
      entry["problem"] = layer.problem;
    }
    layers.push_back(std::move(entry));
  }
  Json first = Json();
  if (report.first_above) first = layers[*report.first_above];
  return text_of({{"first", {{"model", report.first.model}, {"mode", report.first.mode}}},
                  {"second", {{"model", report.second.model}, {"mode", report.second.mode}}},
                  {"image", text_or_null(report.image)},
                  {"tolerance", report.tolerance},
                  {"same", !report.first_above.has_value()},
                  {"first_above", std::move(first)},
                  {"layers", std::move(layers)},
                  {"only_in_first", report.only_in_first},
                  {"only_in_second", report.only_in_second}});
}

}  // namespace ravu::tools
