// Everything here but the last launch happens when the network is allocated.
#include "primitives/products.h"

#include <algorithm>

namespace ravu::opencl {

namespace {

constexpr int64_t kRegisterPixels = 6;       // PIXELS of product.cl
constexpr int64_t kWideRegisterPixels = 12;  // the same with LANES 16
// The weights that work items on neighbouring pixels share should stay in a core's cache, and there
// should be enough items for all cores.
constexpr int64_t kSharedWeights = 32768;
constexpr int64_t kEnoughItems = 64;
constexpr int64_t kSide = 16;  // SIDE
constexpr int64_t kTile = 64;  // TILE

void fill(Plan& plan, const Slot* slot, int64_t count, float value) {
  plan.prepare({"weights", "fill"}, {slot, as_int(count), value}, {count});
}

void copy_part(Plan& plan, const Operand& from, const Slot* to, int64_t start, int64_t count) {
  plan.prepare({"weights", "copy_part"}, {from.slot, to, as_int(start), as_int(count)}, {count});
}

void fold(Plan& plan, const Follower& follower, int64_t units, UnitParameters& parameters) {
  const Slot* first = follower.first.slot;
  const Slot* second = follower.second.slot;
  switch (follower.epilogue.form) {
    case Epilogue::Form::kNormalise:
      plan.prepare({"weights", "fold_batch_norm"},
                   {parameters.factors, parameters.biases, first, second, follower.epilogue.number,
                    as_int(units)},
                   {units});
      break;
    case Epilogue::Form::kScale:
      plan.prepare({"weights", "fold_scale"},
                   {parameters.factors, parameters.biases, first,
                    second == nullptr ? first : second, as_int(second == nullptr ? 0 : 1),
                    as_int(follower.first.tensor.f == 1 ? 0 : 1), as_int(units)},
                   {units});
      break;
    case Epilogue::Form::kRectify:
      fill(plan, parameters.slopes, units, follower.epilogue.number);
      break;
    case Epilogue::Form::kRectifyEach:
      copy_part(plan, follower.first, parameters.slopes, 0, units);
      break;
    case Epilogue::Form::kAdd:
      parameters.addend = first;
      fill(plan, parameters.slopes, units, follower.epilogue.number);
      break;
  }
}

// How many panels of weights a work item of product_registers goes through.
int64_t panels_each(int64_t panels, int64_t panel_size, int64_t tiles) {
  int64_t each = std::clamp<int64_t>(kSharedWeights / panel_size, 1, panels);
  while (each > 1 && tiles * blocks(panels, each) < kEnoughItems) each /= 2;
  return each;
}

// Values per unit with every part padded to whole panels.
const Slot* padded(Plan& plan, const Slot* values, const Product& product, int64_t width) {
  if (width == product.units) return plan.keep(values);
  const Slot* wide = plan.scratch(product.parts * width);
  const int64_t count = product.parts * product.units;
  plan.prepare({"weights", "spread"},
               {values, wide, as_int(count), as_int(product.units), as_int(width)}, {count});
  return wide;
}

void launch_product(Plan& plan, const Product& product, int64_t panels,
                    std::vector<Argument> arguments) {
  const int64_t lanes = plan.engine().queue.lanes();
  const int64_t panel = 2 * lanes;
  constexpr KernelName kLocal = {"product_local", "product_local"};
  constexpr KernelName kRegisters = {"product", "product_registers"};
  constexpr Work kLocalGroup = {kSide, kSide};
  // Of fewer pixels most of a tile would be empty.
  if (plan.engine().local_tiles && product.pixels >= kSide &&
      plan.takes_group(kLocal, kLocalGroup)) {
    plan.run_in_groups(
        kLocal, std::move(arguments),
        {blocks(product.pixels, kTile), blocks(panels * panel, kTile), product.parts}, kLocalGroup);
    return;
  }
  const int64_t tiles = blocks(product.pixels, lanes == 16 ? kWideRegisterPixels : kRegisterPixels);
  const int64_t each = panels_each(panels, product.terms * panel, tiles * product.parts);
  arguments.emplace_back(as_int(each));
  const Work work = {tiles, blocks(panels, each), product.parts};
  // A core takes one work item at a time, a GPU whole groups.
  if (plan.engine().queue.device().is_processor()) {
    plan.run_in_groups(kRegisters, std::move(arguments), work, {});
  } else {
    plan.run(kRegisters, std::move(arguments), work);
  }
}

}  // namespace

UnitParameters fold_followers(Plan& plan, int64_t units, std::span<const Operand> biases,
                              float slope) {
  UnitParameters parameters{plan.temporary(units), plan.temporary(units), plan.temporary(units),
                            nullptr};
  fill(plan, parameters.factors, units, 1);
  fill(plan, parameters.slopes, units, slope);
  int64_t start = 0;
  for (const Operand& bias : biases) {
    copy_part(plan, bias, parameters.biases, start, count(bias.tensor));
    start += count(bias.tensor);
  }
  for (const Follower& follower : plan.followers()) fold(plan, follower, units, parameters);
  return parameters;
}

void plan_product(Plan& plan, const Product& product, std::span<const Operand> weights,
                  const UnitParameters& parameters) {
  const int64_t panel = int64_t{2} * plan.engine().queue.lanes();  // PANEL of product.cl
  const int64_t panels = blocks(product.units, panel);
  const int64_t part_size = times(panels * panel, product.terms);
  const Slot* packed = plan.scratch(times(product.parts, part_size));
  for (int64_t part = 0; part < product.parts; ++part) {
    plan.prepare({"weights", "pack_panels"},
                 {weights[static_cast<size_t>(part)].slot, packed, parameters.factors,
                  product.digits, product.steps, as_int(product.units),
                  as_int(part * product.units), as_int(panel), as_int(part * part_size)},
                 {panel, product.terms, panels});
  }
  const bool adds = parameters.addend != nullptr;
  const Slot* biases = padded(plan, parameters.biases, product, panels * panel);
  std::vector<Argument> arguments = {plan.input(0).slot,
                                     packed,
                                     biases,
                                     padded(plan, parameters.slopes, product, panels * panel),
                                     adds ? parameters.addend : biases,
                                     plan.scratch(product.border_values),
                                     plan.output().slot,
                                     product.image,
                                     product.window,
                                     product.result,
                                     as_int(panels),
                                     as_int(adds ? 1 : 0)};
  launch_product(plan, product, panels, std::move(arguments));
}

}  // namespace ravu::opencl
