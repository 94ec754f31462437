// The fake keeps only what it needs to know how many values an array has.
#include "fakes/fake_fixpoint.h"

#include <map>
#include <sstream>

// The engine sees no more than the name; the real library has a type of its own.
struct ravu::fixpoint::Operator {
  int number = 0;
  std::size_t outputs = 0;
  int kernel_h = 1, kernel_w = 1, stride_h = 1, stride_w = 1;
  int dilation_h = 1, dilation_w = 1, pad_h = 0, pad_w = 0;
  std::size_t produced = 0;  // floats of the next run
};

namespace ravu::test {
namespace {

using fixpoint::Operator;

int made = 0;

std::string name(const Operator* op) {
  return op == nullptr ? "null" : std::string(1, static_cast<char>('A' + op->number));
}

std::string array(const float* values, std::size_t n) {
  if (values == nullptr) return "null";
  std::ostringstream text;
  text << '[';
  for (std::size_t i = 0; i < n; ++i) text << (i == 0 ? "" : " ") << values[i];
  text << ']';
  return text.str();
}

// Writes "ordinal(arguments)" down; false when the ordinal is to be refused.
template <class... Arguments>
bool record(std::uint32_t ordinal, const Arguments&... arguments) {
  std::ostringstream line;
  line << std::boolalpha << ordinal << '(';
  const char* separator = "";
  ((line << separator << arguments, separator = ", "), ...);
  line << ')';
  fake_fixpoint().calls.push_back(line.str());
  return fake_fixpoint().refused != ordinal;
}

Operator* create(std::uint32_t ordinal, std::int32_t version) {
  if (!record(ordinal, version)) return nullptr;
  ++fake_fixpoint().living;
  return new Operator{.number = made++};
}

bool run(std::uint32_t ordinal, Operator* op, float* output, float rounding) {
  if (!record(ordinal, name(op), rounding)) return false;
  fake_fixpoint().output = output;
  for (std::size_t i = 0; i < op->produced; ++i) {
    output[i] = static_cast<float>(op->number * 100) + static_cast<float>(i + 1);
  }
  return true;
}

std::size_t windows(int size, int pad, int kernel, int stride, int dilation) {
  const int room = size + 2 * pad - (dilation - 1) * (stride + 1) - kernel;
  return room < 0 ? 0 : static_cast<std::size_t>(room / stride + 1);
}

bool conv_configure(Operator* op, std::int32_t outputs, std::int32_t channels, std::int32_t groups,
                    std::int32_t kernel_h, std::int32_t kernel_w, std::int32_t stride_h,
                    std::int32_t stride_w, std::int32_t dilation_h, std::int32_t dilation_w,
                    std::int32_t pad_h, std::int32_t pad_w, const float* weights, bool has_bias,
                    const float* bias, bool reserved) {
  const auto row = static_cast<std::size_t>(channels * kernel_h * kernel_w);
  const auto rows = static_cast<std::size_t>(outputs);
  const bool accepted = record(14, name(op), outputs, channels, groups, kernel_h, kernel_w,
                               stride_h, stride_w, dilation_h, dilation_w, pad_h, pad_w,
                               array(weights, row * rows), has_bias, array(bias, rows), reserved);
  if (op == nullptr) return false;
  *op = {op->number, rows,       kernel_h, kernel_w, stride_h, stride_w,
         dilation_h, dilation_w, pad_h,    pad_w,    0};
  return accepted;
}

bool conv_set_input(Operator* op, std::int32_t batch, std::int32_t channels, std::int32_t width,
                    std::int32_t height, const float* data, float range) {
  const auto n = static_cast<std::size_t>(batch * channels * width * height);
  fake_fixpoint().input = data;
  op->produced = static_cast<std::size_t>(batch) * op->outputs *
                 windows(height, op->pad_h, op->kernel_h, op->stride_h, op->dilation_h) *
                 windows(width, op->pad_w, op->kernel_w, op->stride_w, op->dilation_w);
  return record(12, name(op), batch, channels, width, height, array(data, n), range);
}

bool product_configure(Operator* op, std::int32_t outputs, std::int32_t features,
                       const float* weights, const float* bias, bool reserved) {
  const auto rows = static_cast<std::size_t>(outputs);
  const bool accepted = record(29, name(op), outputs, features,
                               array(weights, rows * static_cast<std::size_t>(features)),
                               array(bias, rows), reserved);
  if (op == nullptr) return false;
  op->outputs = rows;
  return accepted;
}

bool product_set_input(Operator* op, std::int32_t batch, std::int32_t features, const float* data,
                       float range) {
  fake_fixpoint().input = data;
  op->produced = static_cast<std::size_t>(batch) * op->outputs;
  return record(27, name(op), batch, features,
                array(data, static_cast<std::size_t>(batch * features)), range);
}

void destroy(Operator* op) {
  record(101, name(op));
  if (op == nullptr) return;
  --fake_fixpoint().living;
  delete op;
}

// A function behind the type that its ordinal has.
template <class Type>
fixpoint::Function as(Type function) {
  return reinterpret_cast<fixpoint::Function>(function);
}

}  // namespace

FakeFixpoint& fake_fixpoint() {
  static FakeFixpoint fake;
  return fake;
}

void reset_fake_fixpoint() {
  fake_fixpoint() = {};
  made = 0;
}

fixpoint::Function fake_fixpoint_function(std::uint32_t ordinal) {
  using namespace fixpoint;  // NOLINT: the types of all ordinals
  static const std::map<std::uint32_t, Function> functions = {
      {8, as<ConvCreate>([](std::int32_t version) { return create(8, version); })},
      {10, as<ConvRun>([](Operator* op, float* to, float r) { return run(10, op, to, r); })},
      {12, as<ConvSetInput>(conv_set_input)},
      {13, as<ConvFinish>([](Operator* op, float r) { return record(13, name(op), r); })},
      {14, as<ConvConfigure>(conv_configure)},
      {23, as<FullyConnectCreate>([](std::int32_t version) { return create(23, version); })},
      {25,
       as<FullyConnectRun>([](Operator* op, float* to, float r) { return run(25, op, to, r); })},
      {27, as<FullyConnectSetInput>(product_set_input)},
      {28, as<FullyConnectFinish>([](Operator* op, float r) { return record(28, name(op), r); })},
      {29, as<FullyConnectConfigure>(product_configure)},
      {101, as<Destroy>(destroy)},
      {102, as<SetThreads>([](Operator* op, std::int32_t n) {
         return record(102, name(op), n > 0 ? "threads" : "none");
       })},
      {103, as<Executions>([](const Operator*) { return std::uint64_t{0}; })},
      {104, as<RunTasks>([](std::int32_t, std::size_t, const void*, Task) { return false; })},
  };
  const auto found = functions.find(ordinal);
  return found == functions.end() ? nullptr : found->second;
}

std::shared_ptr<const FixedPointLibrary> fake_fixed_point_library() {
  return std::make_shared<const FixedPointLibrary>(
      resolve_fixed_point_library(fake_fixpoint_function));
}

}  // namespace ravu::test
