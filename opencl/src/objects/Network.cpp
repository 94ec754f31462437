// Nodes run in the program's order on an in-order queue, so nothing waits for anything but what the
// host computes. The last kernel's event stands for the whole execution.
#include "objects/Network.h"

#include <algorithm>

#include "runtime/Error.h"

using namespace ravu::opencl;

namespace {

// A memory of another engine, copied.
Ref<Memory> brought_to(Engine* engine, Memory* memory) {
  if (memory->engine.get() == engine) return Ref<Memory>::share(memory);
  Ref<Memory> copy = Ref<Memory>::adopt(new Memory(engine, memory->layout));
  const void* from = memory->lock();
  try {
    engine->queue.write(copy->buffer, from, copy->buffer->bytes);
  } catch (...) {
    memory->unlock();
    throw;
  }
  memory->unlock();
  return copy;
}

bool names_any(const Launch& launch, const std::set<const Slot*>& slots) {
  return std::any_of(launch.arguments.begin(), launch.arguments.end(), [&](const Argument& one) {
    const auto* slot = std::get_if<const Slot*>(&one);
    return slot != nullptr && slots.count(*slot) != 0;
  });
}

}  // namespace

cldnn_network_impl::cldnn_network_impl(Program* of_program)
    : program(Ref<Program>::share(of_program)) {
  check_shapes();
  for (const ProgramNode& built : program->nodes) {
    Node& node = nodes_.emplace_back();
    node.built = &built;
    allocate(node);
  }
  for (size_t place = 0; place < nodes_.size(); ++place) plan(place);
  for (const Node& node : nodes_) {
    if (node.recipe.host) last_launch_ = nullptr;  // it waits for everything before
    if (!node.recipe.launches.empty()) last_launch_ = &node.recipe.launches.back();
  }
}

void cldnn_network_impl::check_shapes() const {
  for (const ProgramNode& node : program->nodes) {
    node.primitive->check(program->input_tensors(node), node.tensor);
  }
}

void cldnn_network_impl::allocate(Node& node) {
  const ProgramNode& built = *node.built;
  Engine* engine = program->engine.get();
  if (built.chain_end || built.primitive->input_layout() != nullptr) return;
  if (cldnn_memory constant = built.primitive->constant()) {
    if (constant->is_locked()) refuse(built.primitive->id + ": its memory is locked");
    node.memory = brought_to(engine, constant);
  } else if (built.primitive->is_view()) {
    const Node& viewed = nodes_[built.inputs[0]];
    if (!viewed.memory) return;  // a view of an input that is not there yet
    node.memory =
        Ref<Memory>::adopt(new Memory(engine, layout_of(built.tensor), viewed.memory->buffer));
  } else {
    node.memory = Ref<Memory>::adopt(new Memory(engine, layout_of(built.tensor)));
  }
  node.slot = node.memory->buffer;
}

Operand cldnn_network_impl::operand(size_t place) const {
  return {program->nodes[place].tensor, &nodes_[place].slot};
}

Follower cldnn_network_impl::follower(size_t place, size_t before) const {
  const ProgramNode& built = program->nodes[place];
  const auto input = std::find(built.inputs.begin(), built.inputs.end(), before);
  const auto position = static_cast<size_t>(input - built.inputs.begin());
  Follower follower;
  follower.epilogue = *built.primitive->epilogue(position, program->input_tensors(built));
  if (follower.epilogue.first) follower.first = operand(built.inputs[*follower.epilogue.first]);
  if (follower.epilogue.second) follower.second = operand(built.inputs[*follower.epilogue.second]);
  return follower;
}

void cldnn_network_impl::plan(size_t place) {
  const ProgramNode& built = program->nodes[place];
  if (built.chain_start) return;
  std::vector<Operand> inputs;
  for (size_t input : built.inputs) inputs.push_back(operand(input));
  std::vector<Follower> followers;
  size_t before = place;
  for (size_t next : built.followers) {
    followers.push_back(follower(next, before));
    before = next;
  }
  Plan plan(*program->engine, std::move(inputs), operand(before), std::move(followers),
            nodes_[before].recipe);
  built.primitive->plan(plan);
  nodes_[before].recipe.temporary.clear();
}

void cldnn_network_impl::set_input(const std::string& id, Memory* memory) {
  Node* node = const_cast<Node*>(find(id));
  if (node == nullptr || node->built->primitive->input_layout() == nullptr) {
    refuse("the network has no input \"" + id + "\"");
  }
  if (memory == nullptr) refuse("the memory for input \"" + id + "\" is null");
  if (!same_layout(memory->layout, *node->built->primitive->input_layout())) {
    refuse("the memory for input \"" + id + "\" has another layout than the network was made for");
  }
  node->memory = brought_to(program->engine.get(), memory);
  node->slot = node->memory->buffer;
  changed_.insert(&node->slot);
}

void cldnn_network_impl::rebind() {
  for (Node& node : nodes_) {
    if (node.built->primitive->is_view()) {
      const Slot& viewed = nodes_[node.built->inputs[0]].slot;
      if (node.slot != viewed) {
        changed_.insert(&node.slot);
        node.memory = Ref<Memory>::adopt(
            new Memory(program->engine.get(), layout_of(node.built->tensor), viewed));
        node.slot = viewed;
      }
    }
    for (const Launch& launch : node.recipe.launches) {
      if (!was_bound_ || names_any(launch, changed_)) program->engine->queue.bind(launch);
    }
  }
  changed_.clear();
  was_bound_ = true;
}

void cldnn_network_impl::execute() {
  for (const Node& node : nodes_) {
    const std::string& id = node.built->primitive->id;
    if (node.built->primitive->input_layout() != nullptr && !node.memory) {
      refuse("the input \"" + id + "\" has not been set");
    }
    if (node.memory && node.memory->is_locked()) refuse("the memory of \"" + id + "\" is locked");
  }
  if (!was_bound_ || !changed_.empty()) rebind();
  Queue& queue = program->engine->queue;
  for (const Node& node : nodes_) {
    for (const Launch& launch : node.recipe.launches) {
      queue.run(launch, &launch == last_launch_ ? &last_ : nullptr);
    }
    if (node.recipe.host) node.recipe.host(queue);
  }
  queue.flush();
  was_executed_ = true;
}

std::vector<std::string> cldnn_network_impl::output_names() const {
  std::vector<std::string> names;
  for (const Node& node : nodes_) {
    if (node.built->is_output) names.push_back(node.built->primitive->id);
  }
  return names;
}

Ref<Memory> cldnn_network_impl::output(const std::string& name) const {
  const Node* node = find(name);
  if (node == nullptr) refuse("the network has no primitive \"" + name + "\"");
  if (!was_executed_) refuse("the network has not been executed");
  if (node->built->chain_end) {
    refuse("\"" + name + "\" is computed together with \"" +
           program->nodes[*node->built->chain_end].primitive->id +
           "\" and has no result of its own; the debug build option keeps all results");
  }
  return node->memory;
}

Ref<Event> cldnn_network_impl::event() const {
  return Ref<Event>::adopt(new Event(last_.get()));
}

const cldnn_network_impl::Node* cldnn_network_impl::find(const std::string& id) const {
  for (const Node& node : nodes_) {
    if (node.built->primitive->id == id) return &node;
  }
  return nullptr;
}
