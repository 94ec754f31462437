// Convolution in fixed point: each group is an operator of the library, which wants its channels by
// themselves. Groups are taken out of the pixels and put back in blocks whose floats stay in the
// cache between the two.
#include <algorithm>
#include <atomic>
#include <cstdio>
#include <cstring>
#include <utility>

#include "graph/Workspace.h"
#include "kernels/workers.h"
#include "layers/ConvLayer.h"

namespace ravu {
namespace {

constexpr std::size_t kBlockChannels = 16;  // a cache line of a pixel

// The bias that the operator adds: one value per output channel. Any other count is added here.
const float* operator_bias(const ConvLayer& layer, std::size_t g) {
  const Blob* bias = layer.has_bias ? layer.biases[g].get() : nullptr;
  const bool usual =
      bias != nullptr && bias->count == static_cast<std::uint32_t>(layer.output_channels);
  return usual ? bias->data : nullptr;
}

bool configure(const FixedPointLibrary& library, const ConvLayer& l, std::size_t g,
               fixpoint::Operator* op) {
  const auto channels = static_cast<std::int32_t>(last_input(l)->dims[3]);
  return library.conv_configure(op, l.output_channels, channels / l.groups, /*groups=*/1,
                                l.kernel_h, l.kernel_w, l.stride_h, l.stride_w, l.dilation_h,
                                l.dilation_w, l.pad_h, l.pad_w, l.weights[g]->data, l.has_bias,
                                operator_bias(l, g), /*reserved=*/false) &&
         library.conv_finish(op, kFixedPointWeightRange);
}

// Whether each thread runs groups of its own; fewer groups than threads run one after another, each
// by all threads.
bool shares_groups(const ConvLayer& layer, std::size_t threads) {
  return threads > 1 && layer.operators.size() >= threads;
}

struct Blocks {
  std::size_t threads;  // that run blocks at a time
  std::size_t groups;   // of a block; the last one may have fewer
  std::size_t slice;    // floats of one group's input
  std::size_t scratch;  // floats for a block's slices, and for its outputs before they are put back
};

Blocks blocks_of(const ConvLayer& layer, const kernels::ConvSizes& s, const Blob& output) {
  const std::size_t threads = layer.workspace->workers().threads();
  const std::size_t groups = layer.operators.size();
  const std::size_t fit = kBlockChannels / std::max<std::size_t>(s.group_channels, 1);
  Blocks blocks{};
  blocks.threads = shares_groups(layer, threads) ? threads : 1;
  blocks.groups = std::max<std::size_t>(std::min(fit, groups / threads), 1);
  blocks.slice = s.batch * s.height * s.width * s.group_channels;
  blocks.scratch = blocks.groups * (blocks.slice + output.count / groups);
  return blocks;
}

// Moves images of `computed` floats that lie one after another to places `image` floats apart, and
// clears what is between them.
void spread_images(float* data, std::size_t batch, std::size_t computed, std::size_t image) {
  if (computed == image) return;
  for (std::size_t n = batch; n-- > 0;) {
    std::memmove(data + n * image, data + n * computed, computed * sizeof(float));
    std::fill(data + n * image + computed, data + (n + 1) * image, 0.0F);
  }
}

// One group: false when the operator refuses an input of these sizes.
bool run_operator(const ConvLayer& layer, const kernels::ConvSizes& s, std::size_t g,
                  const float* slice, float* staging) {
  const FixedPointLibrary& library = *layer.workspace->fixed_point;
  const auto size = [](std::size_t n) { return static_cast<std::int32_t>(n); };
  fixpoint::Operator* op = layer.operators[g].get();
  if (!library.conv_set_input(op, size(s.batch), size(s.group_channels), size(s.width),
                              size(s.height), slice, kFixedPointInputRange) ||
      !library.conv_run(op, staging, kFixedPointRounding)) {
    return false;
  }
  const std::size_t computed = s.rows * s.columns * s.kernels;
  const Blob* bias = layer.has_bias ? layer.biases[g].get() : nullptr;
  if (bias != nullptr && operator_bias(layer, g) == nullptr) {
    const std::size_t n = s.batch * computed;
    kernels::add_bias(staging, 1, n, n, bias->data, bias->count, 0);
  }
  spread_images(staging, s.batch, computed, s.out_image / layer.operators.size());
  return true;
}

// The groups [first, end): false when an operator refuses, which leaves the output alone.
bool run_block(const ConvLayer& layer, const kernels::ConvSizes& s, const Blocks& blocks,
               std::size_t first, std::size_t end, float* scratch) {
  const Blob& output = *last_output(layer);
  const std::size_t group_stride = output.count / layer.operators.size();
  float* staging = scratch + blocks.groups * blocks.slice;
  kernels::split_channels(last_input(layer)->data + first * s.group_channels,
                          s.batch * s.height * s.width, s.channels, end - first, s.group_channels,
                          scratch);
  for (std::size_t g = first; g < end; ++g) {
    const std::size_t place = g - first;
    if (!run_operator(layer, s, g, scratch + place * blocks.slice,
                      staging + place * group_stride)) {
      return false;
    }
  }
  kernels::interleave_channels(staging, group_stride, s.batch * s.out_image / s.out_channels,
                               end - first, s.kernels, output.data + first * s.kernels,
                               s.out_channels);
  return true;
}

void run_blocks(const ConvLayer& layer, const kernels::ConvSizes& s, const Blocks& blocks) {
  const std::size_t groups = layer.operators.size();
  const std::size_t count = (groups + blocks.groups - 1) / blocks.groups;
  std::atomic<bool> refused = false;
  const auto run = [&](std::size_t block, std::size_t thread) {
    if (refused) return;
    const std::size_t first = block * blocks.groups;
    float* scratch = layer.workspace->scratch() + thread * blocks.scratch;
    const std::size_t end = std::min(first + blocks.groups, groups);
    if (!run_block(layer, s, blocks, first, end, scratch)) refused = true;
  };
  if (blocks.threads > 1) {
    layer.workspace->workers().run(count, run);
  } else {
    for (std::size_t block = 0; block < count; ++block) run(block, 0);
  }
}

}  // namespace

void prepare_operators(ConvLayer& layer) {
  const FixedPointLibrary* library = layer.workspace->fixed_point.get();
  if (library == nullptr || !*library) return;
  if (layer.operators.empty()) {
    const Blob* output = last_output(layer);
    if (output == nullptr || !fits(layer)) return;
    if (!has_whole_weights(layer, conv_sizes(layer, *last_input(layer), *output))) return;
    std::vector<FixedPointOperator> operators;
    for (std::size_t g = 0; g < layer.weights.size(); ++g) {
      operators.emplace_back(library->conv_create(fixpoint::kVersion), library->destroy);
    }
    for (std::size_t g = 0; g < operators.size(); ++g) {
      if (!configure(*library, layer, g, operators[g].get())) return;
    }
    layer.operators = std::move(operators);
  }
  const std::size_t threads = layer.workspace->workers().threads();
  const auto each = static_cast<std::int32_t>(shares_groups(layer, threads) ? 1 : threads);
  for (const auto& op : layer.operators) library->set_threads(op.get(), each);
}

std::size_t fixed_point_scratch_floats(const ConvLayer& layer, const kernels::ConvSizes& s,
                                       const Blob& output) {
  if (layer.operators.size() <= 1) return 0;
  const Blocks blocks = blocks_of(layer, s, output);
  return blocks.threads * blocks.scratch;
}

void forward_fixed_point(ConvLayer& layer) {
  if (layer.operators.empty()) {
    std::fputs("fixpointconvop_ not initialized yet\n", stderr);
    return;
  }
  if (!has_weights(layer) || !has_data(layer) || !fits(layer)) return;
  const Blob& input = *last_input(layer);
  Blob& output = *last_output(layer);
  const auto s = conv_sizes(layer, input, output);
  if (fixed_point_scratch_floats(layer, s, output) > layer.workspace->size()) return;
  if (layer.operators.size() == 1) {
    run_operator(layer, s, 0, input.data, output.data);
  } else {
    run_blocks(layer, s, blocks_of(layer, s, output));
  }
}

}  // namespace ravu
