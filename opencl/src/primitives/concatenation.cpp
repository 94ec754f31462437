// Inputs behind one another along one dimension. In memory order each input is a number of rows
// that starts with the axis; the output's rows are the inputs' rows joined.
#include <algorithm>

#include "primitives/Plan.h"
#include "primitives/Primitive.h"
#include "primitives/rules.h"
#include "runtime/Error.h"

namespace ravu::opencl {

namespace {

constexpr size_t kInputsPerLaunch = 8;
// Values that one work item copies: long runs on processors, one on GPUs, where the neighbouring
// work item takes the neighbouring value.
constexpr int kProcessorPiece = 512;

char dimension_of(int32_t axis) {
  constexpr char kDimensions[] = {'b', 'f', 'x', 'y'};
  return kDimensions[axis];
}

// The values of one row: everything along the axis and inside of it.
int64_t row_length(const Tensor& tensor, char axis) {
  return times(stride_along(strides_of(tensor), axis), size_along(tensor, axis));
}

class Concatenation final : public Primitive {
 public:
  explicit Concatenation(const cldnn_concatenation_desc& desc)
      : Primitive(desc.header), axis_(desc.axis) {
    if (inputs.empty()) refuse(id + ": needs at least one input");
  }

  Tensor shape(std::span<const Tensor> in) const override {
    need_plane_formats(*this, in[0]);
    const bool spatial = axis_ == CLDNN_CONCATENATION_X || axis_ == CLDNN_CONCATENATION_Y;
    if (axis_ != CLDNN_CONCATENATION_F && !(spatial && in[0].format == CLDNN_FORMAT_BFYX)) {
      refuse(id + ": there is no kernel for axis " + std::to_string(axis_) + " in format " +
             std::to_string(in[0].format));
    }
    Tensor out = in[0];
    for (const Tensor& next : in.subspan(1)) size_along(out) += size_along(next);
    return out;
  }

  void check(std::span<const Tensor> in, const Tensor&) const override {
    for (const Tensor& next : in) {
      Tensor same_but_axis = next;
      size_along(same_but_axis) = size_along(in[0]);
      if (same_but_axis == in[0]) continue;
      refuse(id + ": inputs of " + text(in[0]) + " and " + text(next) +
             " (b, f, x, y) do not agree beside the axis, or differ in format");
    }
  }

  void plan(Plan& plan) const override {
    const char axis = dimension_of(axis_);
    const int64_t out_length = row_length(plan.output().tensor, axis);
    const int64_t rows = count(plan.output().tensor) / out_length;
    int64_t start = 0;
    for (size_t first = 0; first < plan.input_count(); first += kInputsPerLaunch) {
      const size_t inputs_here = std::min(kInputsPerLaunch, plan.input_count() - first);
      std::vector<Argument> arguments;
      cl_int8 lengths{};
      int64_t longest = 0;
      const int64_t start_here = start;
      for (size_t i = 0; i < kInputsPerLaunch; ++i) {
        const Operand& in = plan.input(first + std::min(i, inputs_here - 1));
        arguments.emplace_back(in.slot);
        if (i >= inputs_here) continue;
        const int64_t length = row_length(in.tensor, axis);
        lengths.s[i] = as_int(length);
        longest = std::max(longest, length);
        start += length;
      }
      const int piece = plan.engine().queue.device().is_processor() ? kProcessorPiece : 1;
      for (const Argument& argument :
           {Argument(plan.output().slot), Argument(lengths), Argument(as_int(start_here)),
            Argument(as_int(out_length)), Argument(as_int(rows)), Argument(piece)}) {
        arguments.push_back(argument);
      }
      plan.run({"concatenation", "concatenation"}, std::move(arguments),
               {blocks(longest, piece), rows, static_cast<int64_t>(inputs_here)});
    }
  }

 private:
  int64_t size_along(const Tensor& tensor) const {
    return opencl::size_along(tensor, dimension_of(axis_));
  }
  int64_t& size_along(Tensor& tensor) const {
    switch (axis_) {
      case CLDNN_CONCATENATION_X:
        return tensor.x;
      case CLDNN_CONCATENATION_Y:
        return tensor.y;
      default:
        return tensor.f;
    }
  }

  int32_t axis_;
};

}  // namespace

std::unique_ptr<Primitive> make_concatenation(const cldnn_primitive& header) {
  return std::make_unique<Concatenation>(reinterpret_cast<const cldnn_concatenation_desc&>(header));
}

}  // namespace ravu::opencl
