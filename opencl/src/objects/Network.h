// A program with memory: what it takes to run it.
#pragma once

#include <deque>
#include <set>
#include <string>
#include <vector>

#include "objects/Event.h"
#include "objects/Memory.h"
#include "objects/Program.h"
#include "primitives/Plan.h"

struct cldnn_network_impl final : ravu::opencl::Counted {
  // Refuses shapes that do not fit together, compiles kernels, allocates memory, runs what has to
  // run only once.
  explicit cldnn_network_impl(ravu::opencl::Program* of_program);

  // Refuses names that are no inputs and memories of another layout. A memory of the same engine is
  // used in place, another one is copied.
  void set_input(const std::string& id, ravu::opencl::Memory* memory);
  // Enqueues everything. Refuses a network whose inputs are not all set, or with a locked memory.
  void execute();

  std::vector<std::string> output_names() const;
  // Refuses names that are unknown or were not computed, and everything before the first execution.
  ravu::opencl::Ref<ravu::opencl::Memory> output(const std::string& name) const;
  ravu::opencl::Ref<ravu::opencl::Event> event() const;

  ravu::opencl::Ref<ravu::opencl::Program> program;

 private:
  struct Node {
    const ravu::opencl::ProgramNode* built = nullptr;
    ravu::opencl::Ref<ravu::opencl::Memory> memory;  // null: its chain's last node has it
    ravu::opencl::Slot slot;                         // the memory's buffer
    ravu::opencl::Recipe recipe;
  };

  void check_shapes() const;
  void allocate(Node& node);
  void plan(size_t place);
  const Node* find(const std::string& id) const;
  ravu::opencl::Operand operand(size_t place) const;
  ravu::opencl::Follower follower(size_t place, size_t before) const;
  // Views of inputs follow them, and kernels that read either get the buffers of the moment.
  void rebind();

  std::deque<Node> nodes_;  // launches keep addresses of slots
  bool was_bound_ = false;
  std::set<const ravu::opencl::Slot*> changed_;        // since kernels were bound
  const ravu::opencl::Launch* last_launch_ = nullptr;  // null: nothing is left to wait for
  bool was_executed_ = false;
  ravu::opencl::EventHandle last_;
};

namespace ravu::opencl {
using Network = ::cldnn_network_impl;
}
