// The layer table needs a model that loads; the tag tree any file of elements that fit together.
#include "inspect.h"

#include <algorithm>

#include "common/failure.h"
#include "common/model.h"
#include "common/printing.h"
#include "json.h"

namespace ravu::tools {
namespace {

constexpr std::size_t kTitleWidth = 9;

std::string table_of(const ModelSummary& summary) {
  using enum Table::Align;
  std::vector<Table::Column> columns{
      {"index", kRight},        {"class"}, {"output"}, {"shape"}, {"parameters", kRight},
      {"multiply-adds", kRight}};
  if (summary.planned) columns.push_back({"kernel"});
  Table table(columns);
  const auto add_row = [&](std::vector<std::string> row, const std::string& kernel) {
    if (summary.planned) row.push_back(kernel.empty() ? "-" : kernel);
    table.add_row(row);
  };
  std::size_t index = 0;
  for (const LayerLine& layer : summary.layers) {
    add_row({std::to_string(index++), layer.class_name,
             layer.output.empty() ? "-" : printable(layer.output), dims_text(layer.shape),
             std::to_string(layer.costs.parameters), std::to_string(layer.costs.multiply_adds)},
            layer.kernel);
  }
  add_row({"-", "total", "-", "-", std::to_string(summary.total.parameters),
           std::to_string(summary.total.multiply_adds)},
          "");
  return table.text();
}

std::string text_of(const ModelSummary& summary) {
  std::string mean = "none";
  if (summary.has_mean) mean = summary.preprocess ? "subtracted" : "not subtracted";
  std::string outputs;
  for (const std::string& name : summary.outputs) {
    outputs += (outputs.empty() ? "" : ", ") + printable(name);
  }
  std::string card;
  for (const auto& [title, text] : summary.card.lines) {
    card += title + std::string(kTitleWidth - std::min(kTitleWidth, title.size()), ' ') +
            printable(text) + '\n';
  }
  return "input    " + dims_text(summary.input) + "\nmean     " + mean + "\nlabels   " +
         std::to_string(summary.labels) + "\noutputs  " + outputs + '\n' + card + '\n' +
         table_of(summary);
}

void append_node(const TagNode& node, std::size_t depth, std::string& text) {
  text += std::string(depth * 2, ' ');
  if (!node.key.empty()) text += node.key + ": ";
  text += node.type + ' ' + std::to_string(node.length);
  if (!node.value.empty()) text += ' ' + node.value;
  if (!node.note.empty()) text += "  (" + node.note + ")";
  text += '\n';
  for (const TagNode& child : node.children) append_node(child, depth + 1, text);
}

TagNode read_tags_of(const std::string& path) {
  const FileImage image = read_model_file(path);
  return read_tag_tree(root_tag(image.get()));
}

}  // namespace

ModelSummary summarise(const Network& network, const std::string& model) {
  ModelSummary summary;
  summary.model = model;
  summary.input = network.input->dims;
  summary.has_mean = network.mean != nullptr;
  summary.preprocess = network.preprocess;
  summary.labels = network.labels.size();
  const Blob* listed = nullptr;
  for (const Blob* output : network.outputs) {
    // A Blob is listed once for each layer that writes it.
    if (output != listed) summary.outputs.push_back(output->name);
    listed = output;
  }
  for (const auto& layer : network.layers) {
    LayerLine line;
    line.class_name = layer_class(*layer);
    line.costs = layer_costs(*layer);
    const Blob* output = last_output(*layer);
    if (output != nullptr) {
      line.output = output->name;
      line.shape = output->dims;
    }
    summary.total.parameters += line.costs.parameters;
    summary.total.multiply_adds += line.costs.multiply_adds;
    summary.layers.push_back(line);
  }
  return summary;
}

void add_plan(const Network& network, ModelSummary& summary) {
  summary.planned = true;
  const std::vector<std::string> kernels = layer_kernels(network);
  for (std::size_t i = 0; i < kernels.size(); ++i) summary.layers[i].kernel = kernels[i];
}

void run_inspect(const InspectOptions& options) {
  if (options.tags) {
    const TagNode root = read_tags_of(options.model);
    if (options.json) return print(to_json(root));
    std::string text;
    append_node(root, 0, text);
    return print(text);
  }
  const FileImage image = read_model_file(options.model);
  const Tag root = root_tag(image.get());
  const auto network = open_model(options.model, root, /*channel_mean=*/false, options.batch);
  if (options.plan) set_up(*network, /*mode=*/0);
  ModelSummary summary = summarise(*network, options.model);
  if (options.plan) add_plan(*network, summary);
  summary.card = read_card(options.model, root);
  print(options.json ? to_json(summary) : text_of(summary));
}

}  // namespace ravu::tools
