// Rectification: max(v, 0) + slope * min(v, 0), with one slope or one per feature.
#include "primitives/Plan.h"
#include "primitives/Primitive.h"
#include "primitives/rules.h"

namespace ravu::opencl {

namespace {

class Activation final : public Primitive {
 public:
  explicit Activation(const cldnn_activation_desc& desc)
      : Primitive(desc.header), slope_(desc.negative_slope) {
    need_inputs(*this, 1);
    const std::string slopes = text_of(desc.slope_input, "slope");
    has_slopes_ = !slopes.empty();
    if (has_slopes_) inputs.push_back(slopes);
  }

  Tensor shape(std::span<const Tensor> in) const override {
    need_plane_formats(*this, in[0]);
    return in[0];
  }

  void check(std::span<const Tensor> in, const Tensor&) const override {
    if (has_slopes_) need_values_along_x(*this, in[1], in[0].f, "slopes");
  }

  void plan(Plan& plan) const override {
    const Operand& in = plan.input(0);
    const int lanes = plan.engine().queue.lanes();
    if (has_slopes_) {
      const Walk beside = walk_features(in.tensor, lanes);
      plan.run({"activation", "activation_slopes"},
               {in.slot, plan.input(1).slot, plan.output().slot, beside.sizes, beside.steps},
               beside.work);
    } else {
      const int64_t values = count(in.tensor);
      plan.run({"activation", "activation"}, {in.slot, plan.output().slot, as_int(values), slope_},
               {blocks(values, lanes)});
    }
  }

  std::optional<Epilogue> epilogue(size_t position, std::span<const Tensor>) const override {
    if (position != 0) return std::nullopt;
    if (has_slopes_) return Epilogue{Epilogue::Form::kRectifyEach, 1, 1, std::nullopt};
    return Epilogue{Epilogue::Form::kRectify, slope_, std::nullopt, std::nullopt};
  }

 private:
  float slope_;
  bool has_slopes_ = false;
};

}  // namespace

std::unique_ptr<Primitive> make_activation(const cldnn_primitive& header) {
  return std::make_unique<Activation>(reinterpret_cast<const cldnn_activation_desc&>(header));
}

}  // namespace ravu::opencl
