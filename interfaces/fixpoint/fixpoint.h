// The fixed-point kernel library: convolution and fully connected operators in 8-bit integers. The
// engine loads it when it runs and calls its functions by ordinal; this header gives every ordinal
// its name and its argument list.
//
// The life of an operator: create, configure, finish; then set_input and run as often as wanted;
// destroy. Operators share nothing, and each is used by one thread at a time. A function that is
// handed something it cannot work with (a null pointer, a size of zero or below, a size beyond what
// 32 bits can sum, a call out of order) or that finds no memory returns false, or null, and does
// nothing.
//
// Arithmetic, the same bits on every processor and for every number of threads:
//   weights      each output channel w:  step_w = max |w| / 64,  v = w / step_w to the nearest
//                integer, halves away from zero
//   inputs       each image x:  step_x = max |x| / 127,  q = floor(x * (127 / max |x|) + 0.5)
//   sum          s = sum of q * v, exact, in 32 bits
//   output       float(s) * (step_x * step_w) + bias, each operation rounded to single precision
// 64, 127 and 0.5 stand for what the caller passes. Where all values are 0 so are the integers.
// Values that are not numbers count as 0; infinite ones are limited like values beyond the range,
// and the maximum is that of the finite ones.
#pragma once

#include <cstddef>
#include <cstdint>

namespace ravu::fixpoint {

// An operator of either kind, owned by whoever created it.
struct Operator;

// What to hand to the functions that create: the version of this interface.
inline constexpr std::int32_t kVersion = 1;

// The greatest values that the ranges may have. Two products of an unsigned byte with a weight of
// 64 fit the 16 bits in which processors without dot-product instructions add them.
inline constexpr float kGreatestWeight = 64.0F;
inline constexpr float kGreatestInput = 127.0F;

// --- convolution -------------------------------------------------------------------------------

// Makes an operator; null for another version.
inline constexpr std::uint32_t kConvCreate = 8;
using ConvCreate = Operator* (*)(std::int32_t version);

// Computes what set_input has announced. `output` gets batch x rows x columns x output_channels
// floats, channels fastest, where rows and columns are
//   (size + 2 pad - (dilation - 1) (stride + 1) - kernel) / stride + 1, and 0 where that is not
// positive. `rounding` is added before inputs are rounded down: 0.5 rounds to nearest. 0 to 1.
inline constexpr std::uint32_t kConvRun = 10;
using ConvRun = bool (*)(Operator* op, float* output, float rounding);

// Announces the next input: batch x height x width x channels floats, channels fastest, which stay
// where they are until run has returned. `range` is the integer of the greatest magnitude in each
// image: 127 uses 8 bits. 1 to 127.
inline constexpr std::uint32_t kConvSetInput = 12;
using ConvSetInput = bool (*)(Operator* op, std::int32_t batch, std::int32_t channels,
                              std::int32_t width, std::int32_t height, const float* data,
                              float range);

// Quantises the weights, once, and keeps the integers. `range` is the integer of the greatest
// magnitude in each output channel. 1 to 64.
inline constexpr std::uint32_t kConvFinish = 13;
using ConvFinish = bool (*)(Operator* op, float range);

// Describes the layer. Weights: one row per output channel, in the order kernel row, kernel column,
// input channel; they stay where they are until finish has returned. The bias (one value per
// output channel) is copied; without has_bias, or where it is null, nothing is added. Dilation
// moves the kernel's start by (dilation - 1) pixels and leaves its taps together. `groups` is 1:
// each group of a grouped convolution is an operator of its own. `reserved` is false.
inline constexpr std::uint32_t kConvConfigure = 14;
using ConvConfigure = bool (*)(Operator* op, std::int32_t output_channels,
                               std::int32_t input_channels, std::int32_t groups,
                               std::int32_t kernel_height, std::int32_t kernel_width,
                               std::int32_t stride_height, std::int32_t stride_width,
                               std::int32_t dilation_height, std::int32_t dilation_width,
                               std::int32_t pad_height, std::int32_t pad_width,
                               const float* weights, bool has_bias, const float* bias,
                               bool reserved);

// --- fully connected: the same five steps ------------------------------------------------------

inline constexpr std::uint32_t kFullyConnectCreate = 23;
using FullyConnectCreate = Operator* (*)(std::int32_t version);

// `output` gets batch x outputs floats.
inline constexpr std::uint32_t kFullyConnectRun = 25;
using FullyConnectRun = bool (*)(Operator* op, float* output, float rounding);

// batch x features floats; each image has its own step.
inline constexpr std::uint32_t kFullyConnectSetInput = 27;
using FullyConnectSetInput = bool (*)(Operator* op, std::int32_t batch, std::int32_t features,
                                      const float* data, float range);

inline constexpr std::uint32_t kFullyConnectFinish = 28;
using FullyConnectFinish = bool (*)(Operator* op, float range);

// Weights: one row of `features` values per output. The bias (one value per output) may be null.
inline constexpr std::uint32_t kFullyConnectConfigure = 29;
using FullyConnectConfigure = bool (*)(Operator* op, std::int32_t outputs, std::int32_t features,
                                       const float* weights, const float* bias, bool reserved);

// --- both kinds --------------------------------------------------------------------------------

// Releases an operator and all it holds; null is ignored.
inline constexpr std::uint32_t kDestroy = 101;
using Destroy = void (*)(Operator* op);

// How many threads `run` may use, from 1 up; 1 until it is called. The calling thread's own OpenMP
// setting is as it was when `run` returns.
inline constexpr std::uint32_t kSetThreads = 102;
using SetThreads = bool (*)(Operator* op, std::int32_t threads);

// How many times the operator has summed integer products; 0 for null.
inline constexpr std::uint32_t kExecutions = 103;
using Executions = std::uint64_t (*)(const Operator* op);

// --- its threads -------------------------------------------------------------------------------

// A piece of work: called with an index and with which of the threads is calling. Does not throw.
using Task = void (*)(const void* object, std::size_t index, std::size_t thread);

// Calls task(object, index, thread) once for each index below `count`, from at most `threads`
// threads, the calling one among them, and returns when all is done; each thread is below `threads`
// and runs one task at a time. They are the threads that operators use, which look for work for a
// while before they sleep: whoever has work between two operators gives it to them, since threads
// of its own would wait for a processor meanwhile. Tasks may run operators that were given one
// thread. False where the library has no threads, for null and for numbers of threads below 1:
// nothing was called.
inline constexpr std::uint32_t kRunTasks = 104;
using RunTasks = bool (*)(std::int32_t threads, std::size_t count, const void* object, Task task);

// --- finding them ------------------------------------------------------------------------------

// Any of the functions above, to be cast to its type.
using Function = void (*)();

// On Windows the ordinals are those of the library's export table. Elsewhere the library exports
// one function, under this name, which gives the function of an ordinal or null.
inline constexpr const char* kResolverName = "ravu_fixpoint_function";
using Resolver = Function (*)(std::uint32_t ordinal);

}  // namespace ravu::fixpoint
