// The functions behind the ordinals: find out what kind the operator is, forward, let no exception
// out. On Windows exports.def gives them their ordinals, elsewhere the table at the end.
#include <algorithm>
#include <iterator>

#include "Convolution.h"
#include "FullyConnected.h"
#include "fixpoint/fixpoint.h"
#include "threads.h"

using namespace ravu::fixpoint;  // NOLINT: every function here is one of the interface

namespace {

// What the work answers; false when it throws.
template <class Work>
bool guarded(Work work) {
  try {
    return work();
  } catch (...) {
    return false;
  }
}

template <class Kind>
Operator* create(std::int32_t version) {
  Operator* made = nullptr;
  guarded([&] {
    if (version == kVersion) made = new Kind;
    return made != nullptr;
  });
  return made;
}

// Calls work on the operator if it is of this kind.
template <class Kind, class Work>
bool with(Operator* op, Work work) {
  auto* kind = dynamic_cast<Kind*>(op);
  return kind != nullptr && guarded([&] { return work(*kind); });
}

}  // namespace

extern "C" {

Operator* ravu_fixpoint_conv_create(std::int32_t version) {
  return create<Convolution>(version);
}

bool ravu_fixpoint_conv_run(Operator* op, float* output, float rounding) {
  return with<Convolution>(op, [&](Convolution& conv) { return conv.run(output, rounding); });
}

bool ravu_fixpoint_conv_set_input(Operator* op, std::int32_t batch, std::int32_t channels,
                                  std::int32_t width, std::int32_t height, const float* data,
                                  float range) {
  return with<Convolution>(op, [&](Convolution& conv) {
    return conv.set_input(batch, channels, width, height, data, range);
  });
}

bool ravu_fixpoint_conv_finish(Operator* op, float range) {
  return with<Convolution>(op, [&](Convolution& conv) { return conv.finish(range); });
}

bool ravu_fixpoint_conv_configure(Operator* op, std::int32_t output_channels,
                                  std::int32_t input_channels, std::int32_t groups,
                                  std::int32_t kernel_height, std::int32_t kernel_width,
                                  std::int32_t stride_height, std::int32_t stride_width,
                                  std::int32_t dilation_height, std::int32_t dilation_width,
                                  std::int32_t pad_height, std::int32_t pad_width,
                                  const float* weights, bool has_bias, const float* bias,
                                  bool reserved) {
  if (groups != 1 || reserved) return false;
  const ConvSizes sizes{output_channels, input_channels, kernel_height,   kernel_width,
                        stride_height,   stride_width,   dilation_height, dilation_width,
                        pad_height,      pad_width};
  return with<Convolution>(op, [&](Convolution& conv) {
    return conv.configure(sizes, weights, has_bias ? bias : nullptr);
  });
}

Operator* ravu_fixpoint_fully_connect_create(std::int32_t version) {
  return create<FullyConnected>(version);
}

bool ravu_fixpoint_fully_connect_run(Operator* op, float* output, float rounding) {
  return with<FullyConnected>(op, [&](FullyConnected& fc) { return fc.run(output, rounding); });
}

bool ravu_fixpoint_fully_connect_set_input(Operator* op, std::int32_t batch, std::int32_t features,
                                           const float* data, float range) {
  return with<FullyConnected>(
      op, [&](FullyConnected& fc) { return fc.set_input(batch, features, data, range); });
}

bool ravu_fixpoint_fully_connect_finish(Operator* op, float range) {
  return with<FullyConnected>(op, [&](FullyConnected& fc) { return fc.finish(range); });
}

bool ravu_fixpoint_fully_connect_configure(Operator* op, std::int32_t outputs,
                                           std::int32_t features, const float* weights,
                                           const float* bias, bool reserved) {
  if (reserved) return false;
  return with<FullyConnected>(
      op, [&](FullyConnected& fc) { return fc.configure(outputs, features, weights, bias); });
}

void ravu_fixpoint_destroy(Operator* op) {
  delete op;
}

bool ravu_fixpoint_set_threads(Operator* op, std::int32_t threads) {
  return op != nullptr && op->set_threads(threads);
}

std::uint64_t ravu_fixpoint_executions(const Operator* op) {
  return op == nullptr ? 0 : op->executions();
}

bool ravu_fixpoint_run_tasks(std::int32_t threads, std::size_t count, const void* object,
                             Task task) {
  return task != nullptr && threads >= 1 && threads <= kMaxThreads &&
         run_tasks(threads, count, object, task);
}

#ifndef _WIN32
__attribute__((visibility("default"))) Function ravu_fixpoint_function(std::uint32_t ordinal);
#endif

}  // extern "C"

#ifndef _WIN32
namespace {

struct Row {
  std::uint32_t ordinal;
  Function function;
};

// The row of a function, which must have the type that the interface gives its ordinal.
template <class Type>
Row row(std::uint32_t ordinal, Type function) {
  return {ordinal, reinterpret_cast<Function>(function)};
}

}  // namespace

Function ravu_fixpoint_function(std::uint32_t ordinal) {
  static const Row kRows[] = {
      row<ConvCreate>(kConvCreate, ravu_fixpoint_conv_create),
      row<ConvRun>(kConvRun, ravu_fixpoint_conv_run),
      row<ConvSetInput>(kConvSetInput, ravu_fixpoint_conv_set_input),
      row<ConvFinish>(kConvFinish, ravu_fixpoint_conv_finish),
      row<ConvConfigure>(kConvConfigure, ravu_fixpoint_conv_configure),
      row<FullyConnectCreate>(kFullyConnectCreate, ravu_fixpoint_fully_connect_create),
      row<FullyConnectRun>(kFullyConnectRun, ravu_fixpoint_fully_connect_run),
      row<FullyConnectSetInput>(kFullyConnectSetInput, ravu_fixpoint_fully_connect_set_input),
      row<FullyConnectFinish>(kFullyConnectFinish, ravu_fixpoint_fully_connect_finish),
      row<FullyConnectConfigure>(kFullyConnectConfigure, ravu_fixpoint_fully_connect_configure),
      row<Destroy>(kDestroy, ravu_fixpoint_destroy),
      row<SetThreads>(kSetThreads, ravu_fixpoint_set_threads),
      row<Executions>(kExecutions, ravu_fixpoint_executions),
      row<RunTasks>(kRunTasks, ravu_fixpoint_run_tasks),
  };
  const auto* found = std::find_if(std::begin(kRows), std::end(kRows),
                                   [&](const Row& r) { return r.ordinal == ordinal; });
  return found == std::end(kRows) ? nullptr : found->function;
}
#endif
