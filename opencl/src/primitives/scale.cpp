// value * scale + bias, the scale repeated along every dimension in which it has size 1.
#include "primitives/Plan.h"
#include "primitives/Primitive.h"
#include "primitives/rules.h"
#include "runtime/Error.h"

namespace ravu::opencl {

namespace {

class Scale final : public Primitive {
 public:
  explicit Scale(const cldnn_scale_desc& desc) : Primitive(desc.header) {
    need_inputs(*this, 1);
    inputs.push_back(text_of(desc.scale_input, "scale"));
    const std::string bias = text_of(desc.bias, "bias");
    has_bias_ = !bias.empty();
    if (has_bias_) inputs.push_back(bias);
  }

  Tensor shape(std::span<const Tensor> in) const override {
    for (const Tensor& tensor : in) need_plane_formats(*this, tensor);
    return in[0];
  }

  void check(std::span<const Tensor> in, const Tensor&) const override {
    for (char dimension : {'b', 'f', 'x', 'y'}) {
      const int64_t size = size_along(in[1], dimension);
      if (size == 1 || size == size_along(in[0], dimension)) continue;
      refuse(id + ": a scale of " + text(in[1]) + " does not fit an input of " + text(in[0]) +
             " (b, f, x, y)");
    }
    if (has_bias_ && in[1] != in[2]) refuse(id + ": scale and bias differ in size or format");
  }

  void plan(Plan& plan) const override {
    const Walk beside =
        walk_beside(plan.output().tensor, plan.input(1).tensor, plan.engine().queue.lanes());
    std::vector<Argument> arguments = {plan.input(0).slot, plan.input(1).slot};
    if (has_bias_) arguments.emplace_back(plan.input(2).slot);
    arguments.emplace_back(plan.output().slot);
    arguments.emplace_back(beside.sizes);
    arguments.emplace_back(beside.steps);
    plan.run({"scale", has_bias_ ? "scale_bias" : "scale"}, std::move(arguments), beside.work);
  }

  std::optional<Epilogue> epilogue(size_t position, std::span<const Tensor> in) const override {
    const Tensor& scale = in[1];
    const bool per_feature = scale.b == 1 && scale.x == 1 && scale.y == 1;
    if (position != 0 || !per_feature) return std::nullopt;
    Epilogue epilogue{Epilogue::Form::kScale, 1, 1, std::nullopt};
    if (has_bias_) epilogue.second = 2;
    return epilogue;
  }

 private:
  bool has_bias_ = false;
};

}  // namespace

std::unique_ptr<Primitive> make_scale(const cldnn_primitive& header) {
  return std::make_unique<Scale>(reinterpret_cast<const cldnn_scale_desc&>(header));
}

}  // namespace ravu::opencl
