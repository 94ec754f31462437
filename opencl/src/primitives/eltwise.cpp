// Two inputs of the same layout, value by value, with an optional rectification.
#include "primitives/Plan.h"
#include "primitives/Primitive.h"
#include "primitives/rules.h"
#include "runtime/Error.h"

namespace ravu::opencl {

namespace {

class Eltwise final : public Primitive {
 public:
  explicit Eltwise(const cldnn_eltwise_desc& desc)
      : Primitive(desc.header),
        mode_(desc.mode),
        slope_(desc.with_activation != 0 ? desc.activation_slope : 1) {
    const std::string second = text_of(desc.second_input, "second input");
    // A second id in the header takes the place of the field.
    if (inputs.size() == 1) inputs.push_back(second);
    need_inputs(*this, 2);
  }

  Tensor shape(std::span<const Tensor> in) const override {
    need_plane_formats(*this, in[0]);
    return in[0];
  }

  void check(std::span<const Tensor> in, const Tensor&) const override {
    if (in[0] == in[1]) return;
    refuse(id + ": inputs of " + text(in[0]) + " and " + text(in[1]) +
           " (b, f, x, y) differ in size or format");
  }

  void plan(Plan& plan) const override {
    const int64_t values = count(plan.output().tensor);
    plan.run({"eltwise", "eltwise"},
             {plan.input(0).slot, plan.input(1).slot, plan.output().slot, as_int(values),
              as_int(mode_), slope_},
             {blocks(values, plan.engine().queue.lanes())});
  }

  std::optional<Epilogue> epilogue(size_t position, std::span<const Tensor> in) const override {
    const bool is_sum =
        mode_ != CLDNN_ELTWISE_SUB && mode_ != CLDNN_ELTWISE_MAX && mode_ != CLDNN_ELTWISE_PROD;
    if (!is_sum || inputs[0] == inputs[1] || in[0] != in[1]) return std::nullopt;
    return Epilogue{Epilogue::Form::kAdd, slope_, 1 - position, std::nullopt};
  }

 private:
  int32_t mode_;
  float slope_;
};

}  // namespace

std::unique_ptr<Primitive> make_eltwise(const cldnn_primitive& header) {
  return std::make_unique<Eltwise>(reinterpret_cast<const cldnn_eltwise_desc&>(header));
}

}  // namespace ravu::opencl
