// ravu inspect: what a model file holds, as a table of layers or as the tree of its elements.
#pragma once

#include <array>
#include <cstdint>
#include <string>
#include <vector>

#include "common/layer_costs.h"
#include "common/model_card.h"
#include "graph/ravuGraph.h"
#include "model/tag_reader.h"

namespace ravu::tools {

struct InspectOptions {
  std::string model;
  std::uint32_t batch = 1;
  bool tags = false;
  bool plan = false;
  bool json = false;
};

struct LayerLine {
  std::string class_name;
  std::string output;  // name of the last output, empty when there is none
  std::array<std::uint32_t, 4> shape{};
  LayerCosts costs;
  std::string kernel;  // see layer_kernels; empty before a set-up
};

struct ModelSummary {
  std::string model;
  std::array<std::uint32_t, 4> input{};
  bool has_mean = false;
  bool preprocess = false;  // the mean is subtracted by each pass
  std::size_t labels = 0;
  bool planned = false;  // set up for run mode 0
  std::vector<std::string> outputs;
  std::vector<LayerLine> layers;  // in execution order
  LayerCosts total;
  ModelCard card;
};

ModelSummary summarise(const Network& network, const std::string& model);

// Adds how each layer of a network that has been set up for run mode 0 is computed.
void add_plan(const Network& network, ModelSummary& summary);

// One element of the file, with what stands inside it.
struct TagNode {
  std::string key;   // in a dictionary; empty elsewhere
  std::string type;  // "text", "bytes", "int", "float", "floats", "dictionary", "list", "type 9"
  std::uint32_t length = 0;  // bytes of payload
  std::string value;         // of an element without children, long ones cut
  std::vector<TagNode> children;
  std::string note;  // what is wrong with a container, or why its children are not shown
};

// The tree below an element. Containers more than 32 levels deep are not opened, and no more than
// a million elements are read, so that no file costs more than it is worth.
TagNode read_tag_tree(const Tag& root);

// Throws Failure when the model cannot be loaded, or with `tags` when the file cannot be read.
void run_inspect(const InspectOptions& options);

}  // namespace ravu::tools
