// Building goes through a few passes over the nodes: order, shapes, outputs, chains.
#include "objects/Program.h"

#include <algorithm>
#include <limits>

#include "runtime/Error.h"

using namespace ravu::opencl;

namespace {

struct Options {
  std::vector<std::string> outputs;
  bool keeps_everything = false;  // the debug option: every primitive's result can be fetched
};

Options read_options(std::span<const cldnn_build_option> given) {
  Options options;
  for (const cldnn_build_option& option : given) {
    switch (option.type) {
      case CLDNN_OPTION_FUSING:
      case CLDNN_OPTION_PROFILING:
      case CLDNN_OPTION_OPTIMIZE_DATA:
        break;
      case CLDNN_OPTION_DEBUG:
        options.keeps_everything = option.data != nullptr;
        break;
      case CLDNN_OPTION_OUTPUTS:
        if (option.data == nullptr) refuse("the list of outputs is null");
        options.outputs = ids_of(*static_cast<const cldnn_id_list*>(option.data), "output");
        break;
      default:
        refuse("there is no build option " + std::to_string(option.type));
    }
  }
  return options;
}

// Orders primitives so that each stands behind what it reads. Depth first with a stack of its own:
// a chain of many thousand primitives is no reason to run out of the thread's.
class Ordering {
 public:
  explicit Ordering(const Topology& topology) : topology_(topology) {}

  std::vector<ProgramNode> run() {
    for (const auto& [id, primitive] : topology_.primitives) visit(primitive);
    return std::move(nodes_);
  }

 private:
  struct Visit {
    std::shared_ptr<const Primitive> primitive;
    size_t next_input = 0;
  };

  void visit(const std::shared_ptr<const Primitive>& start) {
    if (places_.contains(start->id)) return;
    open(start);
    while (!stack_.empty()) {
      Visit& top = stack_.back();
      if (top.next_input == top.primitive->inputs.size()) {
        close();
        continue;
      }
      const std::string& id = top.primitive->inputs[top.next_input++];
      const auto found = topology_.primitives.find(id);
      if (found == topology_.primitives.end()) {
        refuse(top.primitive->id + ": its input \"" + id + "\" is not in the topology");
      }
      const auto place = places_.find(id);
      if (place == places_.end()) {
        open(found->second);
      } else if (place->second == kOpen) {
        refuse("\"" + id + "\" reads itself");
      }
    }
  }

  void open(const std::shared_ptr<const Primitive>& primitive) {
    places_[primitive->id] = kOpen;
    stack_.push_back({primitive});
  }

  void close() {
    ProgramNode node;
    node.primitive = stack_.back().primitive;
    stack_.pop_back();
    for (const std::string& id : node.primitive->inputs) {
      node.inputs.push_back(places_[id]);
      ++nodes_[places_[id]].readers;
    }
    places_[node.primitive->id] = nodes_.size();
    nodes_.push_back(std::move(node));
  }

  static constexpr size_t kOpen = std::numeric_limits<size_t>::max();

  const Topology& topology_;
  std::map<std::string, size_t> places_;
  std::vector<Visit> stack_;
  std::vector<ProgramNode> nodes_;
};

void need_countable(const Primitive& primitive, const Tensor& tensor) {
  for (int64_t size : {tensor.b, tensor.f, tensor.x, tensor.y}) {
    if (size <= std::numeric_limits<int32_t>::max()) continue;
    refuse(primitive.id + ": an output of " + text(tensor) + " (b, f, x, y) is too large");
  }
}

bool has_operands(const Epilogue& epilogue) {
  return epilogue.form == Epilogue::Form::kNormalise || epilogue.form == Epilogue::Form::kScale ||
         epilogue.form == Epilogue::Form::kRectifyEach;
}

}  // namespace

cldnn_program_impl::cldnn_program_impl(Engine* of_engine, const Topology& topology,
                                       std::span<const cldnn_build_option> given)
    : engine(Ref<Engine>::share(of_engine)) {
  const Options options = read_options(given);
  nodes = Ordering(topology).run();
  compute_shapes();
  mark_outputs(options.outputs);
  if (!options.keeps_everything) find_followers();
}

std::vector<Tensor> cldnn_program_impl::input_tensors(const ProgramNode& node) const {
  std::vector<Tensor> tensors;
  for (size_t input : node.inputs) tensors.push_back(nodes[input].tensor);
  return tensors;
}

void cldnn_program_impl::compute_shapes() {
  for (ProgramNode& node : nodes) {
    const Primitive& primitive = *node.primitive;
    for (size_t i = 0; i < node.inputs.size(); ++i) {
      if (primitive.wants_constant(i) && !nodes[node.inputs[i]].primitive->constant()) {
        refuse(primitive.id + ": its input \"" + primitive.inputs[i] + "\" has to be data");
      }
    }
    node.tensor = primitive.shape(input_tensors(node));
    need_countable(primitive, node.tensor);
  }
}

void cldnn_program_impl::mark_outputs(const std::vector<std::string>& wanted) {
  for (ProgramNode& node : nodes) node.is_output = wanted.empty() && node.readers == 0;
  for (const std::string& id : wanted) {
    bool found = false;
    for (ProgramNode& node : nodes) {
      if (node.primitive->id != id) continue;
      node.is_output = true;
      found = true;
    }
    if (!found) refuse("the output \"" + id + "\" is not in the topology");
  }
}

void cldnn_program_impl::find_followers() {
  for (size_t i = 0; i < nodes.size(); ++i) {
    if (nodes[i].primitive->is_product()) follow(i);
  }
  for (ProgramNode& node : nodes) {
    if (node.followers.empty()) continue;
    node.chain_end = node.followers.back();
    for (size_t follower : node.followers) {
      if (follower != *node.chain_end) nodes[follower].chain_end = node.chain_end;
    }
  }
}

// Takes the only reader into the chain for as long as the product's kernel can do what it does: per
// unit factors and offsets, then one addition, then one rectification.
void cldnn_program_impl::follow(size_t product) {
  bool may_fold = true;
  bool may_add = true;
  size_t last = product;
  for (size_t next = last + 1; next < nodes.size(); ++next) {
    if (nodes[last].readers != 1 || nodes[last].is_output) return;
    ProgramNode& reader = nodes[next];
    const auto input = std::find(reader.inputs.begin(), reader.inputs.end(), last);
    if (input == reader.inputs.end()) continue;
    const auto position = static_cast<size_t>(input - reader.inputs.begin());
    const auto epilogue = reader.primitive->epilogue(position, input_tensors(reader));
    if (!epilogue) return;
    const bool rectifies = epilogue->form == Epilogue::Form::kRectify ||
                           epilogue->form == Epilogue::Form::kRectifyEach;
    const bool adds = epilogue->form == Epilogue::Form::kAdd;
    if (adds ? !may_add : !rectifies && !may_fold) return;
    if (has_operands(*epilogue)) {
      // Per unit values lie along the features, which a fully connected result has none of.
      if (nodes[product].tensor.f == 1) return;
      for (const auto& operand : {epilogue->first, epilogue->second}) {
        if (operand && !nodes[reader.inputs[*operand]].primitive->constant()) return;
      }
    }
    if (reader.chain_start || reader.tensor != nodes[product].tensor) return;
    nodes[product].followers.push_back(next);
    reader.chain_start = product;
    last = next;
    may_fold = may_fold && !adds;
    may_add = may_add && !adds;
    // A sum that rectifies, or a rectification, is the last step.
    if (rectifies || (adds && epilogue->number != 1)) return;
  }
}
