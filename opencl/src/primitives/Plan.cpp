// On processors work-groups have one of three shapes, so that devices which compile a kernel per
// shape (PoCL) do it at most three times.
#include "primitives/Plan.h"

#include <algorithm>

#include "runtime/Error.h"

namespace ravu::opencl {

namespace {

// Work items of a group. Items on processors handle whole vectors, so there are fewer of them.
constexpr size_t kGroup = 64;
constexpr size_t kProcessorGroup = 16;

size_t items_of(Work work) {
  return static_cast<size_t>(work.x * work.y * work.z);
}

size_t rounded_up(int64_t count, size_t group) {
  return static_cast<size_t>(blocks(count, static_cast<int64_t>(group))) * group;
}

// Neighbours along x first, as they share memory, and no item more than there is work for.
std::array<size_t, 3> filled_group(Work work, size_t group) {
  size_t x = 1;
  while (2 * x <= group && static_cast<int64_t>(x) < work.x) x *= 2;
  size_t y = 1;
  while (2 * x * y <= group && static_cast<int64_t>(y) < work.y) y *= 2;
  return {x, y, 1};
}

std::array<size_t, 3> processor_group(Work work, size_t group) {
  // Along a dimension with fewer items, most of a group would idle.
  const auto worthwhile = static_cast<int64_t>(group) / 4;
  if (work.x >= worthwhile) return {group, 1, 1};
  if (work.y >= worthwhile) return {1, group, 1};
  return {1, 1, 1};
}

}  // namespace

Plan::Plan(Engine& engine, std::vector<Operand> inputs, Operand output,
           std::vector<Follower> followers, Recipe& recipe)
    : engine_(engine),
      inputs_(std::move(inputs)),
      output_(output),
      followers_(std::move(followers)),
      recipe_(recipe) {}

const Slot* Plan::scratch(int64_t count) {
  recipe_.scratch.push_back(engine_.queue.allocate(count, sizeof(float)));
  return &recipe_.scratch.back();
}

const Slot* Plan::temporary(int64_t count) {
  recipe_.temporary.push_back(engine_.queue.allocate(count, sizeof(float)));
  return &recipe_.temporary.back();
}

const Slot* Plan::keep(const Slot* slot) {
  recipe_.scratch.push_back(*slot);
  return &recipe_.scratch.back();
}

const Slot* Plan::constants(std::span<const float> values) {
  const Slot* slot = scratch(std::max<int64_t>(1, static_cast<int64_t>(values.size())));
  if (!values.empty()) engine_.queue.write(*slot, values.data(), values.size_bytes());
  return slot;
}

Launch Plan::launch(KernelName name, std::vector<Argument> arguments) {
  Launch launch;
  launch.kernel = engine_.queue.kernel(name);
  launch.arguments = std::move(arguments);
  return launch;
}

Launch Plan::launch(KernelName name, std::vector<Argument> arguments, Work work) {
  Launch made = launch(name, std::move(arguments));
  const size_t most = engine_.queue.largest_group(made.kernel);
  made.local = engine_.queue.device().is_processor()
                   ? processor_group(work, std::min(kProcessorGroup, most))
                   : filled_group(work, std::min(kGroup, most));
  made.global = {rounded_up(work.x, made.local[0]), rounded_up(work.y, made.local[1]),
                 rounded_up(work.z, made.local[2])};
  return made;
}

void Plan::run(KernelName name, std::vector<Argument> arguments, Work work) {
  recipe_.launches.push_back(launch(name, std::move(arguments), work));
}

bool Plan::takes_group(KernelName name, Work group) {
  return items_of(group) <= engine_.queue.largest_group(engine_.queue.kernel(name));
}

void Plan::run_in_groups(KernelName name, std::vector<Argument> arguments, Work groups,
                         Work group) {
  Launch made = launch(name, std::move(arguments));
  const size_t most = engine_.queue.largest_group(made.kernel);
  if (items_of(group) > most) {
    refuse(std::string(name.function) + " needs work-groups of " + std::to_string(items_of(group)) +
           " items, " + engine_.queue.device().name + " runs " + std::to_string(most));
  }
  made.local = {static_cast<size_t>(group.x), static_cast<size_t>(group.y),
                static_cast<size_t>(group.z)};
  made.global = {static_cast<size_t>(groups.x) * made.local[0],
                 static_cast<size_t>(groups.y) * made.local[1],
                 static_cast<size_t>(groups.z) * made.local[2]};
  recipe_.launches.push_back(std::move(made));
}

void Plan::prepare(KernelName name, std::vector<Argument> arguments, Work work) {
  const Launch made = launch(name, std::move(arguments), work);
  engine_.queue.bind(made);
  engine_.queue.run(made);
}

void Plan::compute_on_host(std::function<void(Queue&)> function) {
  recipe_.host = std::move(function);
}

cl_int as_int(int64_t value) {
  return static_cast<cl_int>(value);
}

cl_int2 ints(int64_t a, int64_t b) {
  return {{as_int(a), as_int(b)}};
}

cl_int4 ints(int64_t a, int64_t b, int64_t c, int64_t d) {
  return {{as_int(a), as_int(b), as_int(c), as_int(d)}};
}

cl_int8 ints(int64_t a, int64_t b, int64_t c, int64_t d, int64_t e, int64_t f, int64_t g,
             int64_t h) {
  return {{as_int(a), as_int(b), as_int(c), as_int(d), as_int(e), as_int(f), as_int(g), as_int(h)}};
}

Walk walk(const std::array<int64_t, 4>& sizes, const std::array<int64_t, 4>& steps, int lanes) {
  std::array<int64_t, 4> joined_sizes{1, 1, 1, 1};  // fastest first
  std::array<int64_t, 4> joined_steps{0, 0, 0, 0};
  int last = -1;
  for (size_t i = 4; i-- > 0;) {
    if (sizes[i] == 1) continue;
    const auto at = static_cast<size_t>(last);
    if (last >= 0 && steps[i] == joined_steps[at] * joined_sizes[at]) {
      joined_sizes[at] *= sizes[i];
      continue;
    }
    ++last;
    joined_sizes[static_cast<size_t>(last)] = sizes[i];
    joined_steps[static_cast<size_t>(last)] = steps[i];
  }
  return {ints(joined_sizes[0], joined_sizes[1], joined_sizes[2], joined_sizes[3]),
          ints(joined_steps[0], joined_steps[1], joined_steps[2], joined_steps[3]),
          {blocks(joined_sizes[0], lanes), joined_sizes[1], joined_sizes[2] * joined_sizes[3]}};
}

Walk walk_beside(const Tensor& output, const Tensor& operand, int lanes) {
  std::array<int64_t, 4> sizes{};
  std::array<int64_t, 4> steps{};
  const Strides strides = strides_of(operand);
  const std::array<char, 4> order = memory_order(output.format);
  for (size_t i = 0; i < 4; ++i) {
    sizes[i] = size_along(output, order[i]);
    steps[i] = size_along(operand, order[i]) == 1 ? 0 : stride_along(strides, order[i]);
  }
  return walk(sizes, steps, lanes);
}

Walk walk_features(const Tensor& output, int lanes) {
  return walk_beside(output, {output.format, 1, output.f, 1, 1}, lanes);
}

int64_t blocks(int64_t count, int64_t size) {
  return (count + size - 1) / size;
}

}  // namespace ravu::opencl
