// What one primitive of a network runs. A primitive's `plan` reads its operands here and says which
// kernels run at each execution, which ones now, or what the host computes.
#pragma once

#include <deque>
#include <functional>
#include <span>
#include <vector>

#include "objects/Engine.h"
#include "primitives/Epilogue.h"
#include "primitives/Tensor.h"
#include "runtime/Queue.h"

namespace ravu::opencl {

struct Operand {
  Tensor tensor;
  const Slot* slot = nullptr;
};

// A primitive behind a product that the product's kernel does as well.
struct Follower {
  Epilogue epilogue;
  Operand first;   // where the epilogue has one
  Operand second;  // likewise
};

// The work items along each dimension; the plan rounds up to work-groups.
struct Work {
  int64_t x = 1;
  int64_t y = 1;
  int64_t z = 1;
};

// What a plan leaves behind: the network keeps it.
struct Recipe {
  std::vector<Launch> launches;
  std::function<void(Queue&)> host;  // instead of launches
  std::deque<Slot> scratch;
  std::deque<Slot> temporary;  // until the plan is made
};

class Plan {
 public:
  Plan(Engine& engine, std::vector<Operand> inputs, Operand output, std::vector<Follower> followers,
       Recipe& recipe);

  Engine& engine() { return engine_; }
  const Operand& input(size_t position) const { return inputs_[position]; }
  size_t input_count() const { return inputs_.size(); }
  const Operand& output() const { return output_; }
  const std::vector<Follower>& followers() const { return followers_; }

  // Zeroed memory that lives as long as the network.
  const Slot* scratch(int64_t count);
  // The same for what `prepare` alone reads and writes: it goes when the plan is made, unless it is
  // kept for the launches after all.
  const Slot* temporary(int64_t count);
  const Slot* keep(const Slot* slot);
  const Slot* constants(std::span<const float> values);

  // One enqueue of each execution.
  void run(KernelName name, std::vector<Argument> arguments, Work work);
  // With work-groups of the kernel's own size, which the work is a multiple of. Refuses groups that
  // the device cannot run.
  bool takes_group(KernelName name, Work group);
  void run_in_groups(KernelName name, std::vector<Argument> arguments, Work groups, Work group);
  // Once, now.
  void prepare(KernelName name, std::vector<Argument> arguments, Work work);
  void compute_on_host(std::function<void(Queue&)> function);

 private:
  Launch launch(KernelName name, std::vector<Argument> arguments);
  Launch launch(KernelName name, std::vector<Argument> arguments, Work work);

  Engine& engine_;
  std::vector<Operand> inputs_;
  Operand output_;
  std::vector<Follower> followers_;
  Recipe& recipe_;
};

// Kernel arguments from 64-bit sizes that are known to fit.
cl_int as_int(int64_t value);
cl_int2 ints(int64_t a, int64_t b);
cl_int4 ints(int64_t a, int64_t b, int64_t c, int64_t d);
cl_int8 ints(int64_t a, int64_t b, int64_t c, int64_t d, int64_t e, int64_t f, int64_t g,
             int64_t h);

// How a kernel goes over the output beside an operand that lies at `steps` in the output's memory
// order, slowest first: neighbouring dimensions joined where both run on. For find_run of
// common.cl.
struct Walk {
  cl_int4 sizes;
  cl_int4 steps;
  Work work;
};
Walk walk(const std::array<int64_t, 4>& sizes, const std::array<int64_t, 4>& steps, int lanes);
// The operand's size is 1 or the output's along each dimension.
Walk walk_beside(const Tensor& output, const Tensor& operand, int lanes);
// One operand value per feature.
Walk walk_features(const Tensor& output, int lanes);

int64_t blocks(int64_t count, int64_t size);

}  // namespace ravu::opencl
