// Convolution in one or several parts: one product per part, or, where every part has one input and
// one output feature, a depthwise pass.
#include "primitives/Plan.h"
#include "primitives/Primitive.h"
#include "primitives/products.h"
#include "primitives/rules.h"
#include "runtime/Error.h"

namespace ravu::opencl {

namespace {

constexpr int64_t kDepthwisePixels = 4;  // PIXELS of depthwise.cl

class Convolution final : public Primitive {
 public:
  explicit Convolution(const cldnn_convolution_desc& desc)
      : Primitive(desc.header),
        offset_(desc.input_offset),
        stride_(desc.stride),
        dilation_(desc.dilation),
        slope_(desc.with_activation != 0 ? desc.activation_slope : 1),
        is_plain_(desc.with_activation == 0),
        parts_(desc.split) {
    need_inputs(*this, 1);
    const std::vector<std::string> weights = ids_of(desc.weights, "weights");
    const std::vector<std::string> biases = ids_of(desc.bias, "bias");
    if (parts_ == 0 || weights.size() != parts_) {
      refuse(id + ": a split of " + std::to_string(parts_) + " needs as many weights, got " +
             std::to_string(weights.size()));
    }
    if (!biases.empty() && biases.size() != parts_) {
      refuse(id + ": the biases must be as many as the weights, or none");
    }
    inputs.insert(inputs.end(), weights.begin(), weights.end());
    inputs.insert(inputs.end(), biases.begin(), biases.end());
  }

  Tensor shape(std::span<const Tensor> in) const override {
    if (in[0].format != CLDNN_FORMAT_YXFB) {
      refuse(id + ": there is no kernel for inputs of format " + std::to_string(in[0].format));
    }
    for (const Tensor& weights : in.subspan(1, parts_)) need_plane_formats(*this, weights);
    Tensor out = in[0];
    out.f = times(in[1].b, parts_);
    out.x = positions(*this, along(CLDNN_X, in[1].x), in[0].x, Rounding::kDown);
    out.y = positions(*this, along(CLDNN_Y, in[1].y), in[0].y, Rounding::kDown);
    return out;
  }

  void check(std::span<const Tensor> in, const Tensor& out) const override {
    for (const Tensor& weights : in.subspan(1, parts_)) {
      if (weights != in[1]) refuse(id + ": the weights of the parts differ in size or format");
    }
    if (in[1].f > in[0].f / parts_) {
      refuse(id + ": weights of " + std::to_string(in[1].f) + " input features in each of " +
             std::to_string(parts_) + " parts do not fit an input of " + std::to_string(in[0].f));
    }
    for (const Tensor& bias : in.subspan(1 + parts_)) {
      need_values_along_x(*this, bias, out.f / parts_, "bias");
    }
  }

  void plan(Plan& plan) const override {
    std::vector<Operand> weights;
    std::vector<Operand> biases;
    for (size_t i = 1; i < plan.input_count(); ++i) {
      (i <= parts_ ? weights : biases).push_back(plan.input(i));
    }
    const UnitParameters parameters = fold_followers(plan, plan.output().tensor.f, biases, slope_);
    const Tensor& kernel = weights[0].tensor;
    if (kernel.b == 1 && kernel.f == 1 && plan.input(0).tensor.f == parts_) {
      plan_depthwise(plan, weights, parameters);
    } else {
      plan_parts(plan, weights, parameters);
    }
  }

  // Its own activation comes last, so nothing can be folded behind it.
  bool is_product() const override { return is_plain_; }
  bool wants_constant(size_t position) const override { return position > 0; }

 private:
  Window along(int dimension, int64_t kernel) const {
    return {kernel, stride_.sizes[dimension], offset_.sizes[dimension], dilation_.sizes[dimension]};
  }

  cl_int8 window(const Tensor& kernel) const {
    const Window x = along(CLDNN_X, kernel.x);
    const Window y = along(CLDNN_Y, kernel.y);
    return ints(x.size, y.size, x.stride, y.stride, x.offset, y.offset, x.dilation, y.dilation);
  }

  void plan_parts(Plan& plan, std::span<const Operand> weights,
                  const UnitParameters& parameters) const {
    const Tensor& in = plan.input(0).tensor;
    const Tensor& out = plan.output().tensor;
    const Tensor& kernel = weights[0].tensor;
    const Strides from = strides_of(in);
    const Strides to = strides_of(out);
    const Strides taps = strides_of(kernel);
    // A pixel's features end where its neighbour's begin.
    const bool tap_rows_run_on =
        along(CLDNN_X, kernel.x).dilation == 1 && from.x == kernel.f * from.f;
    Product product;
    product.image = ints(in.x, in.y, from.x, from.y, from.f, from.b, kernel.f, tap_rows_run_on);
    product.window = window(kernel);
    product.result = ints(out.x, out.y, out.b, kernel.b, to.f, to.x, to.y, to.b);
    product.pixels = out.x * out.y * out.b;
    product.units = kernel.b;
    product.parts = parts_;
    product.terms = kernel.y * kernel.x * kernel.f;
    product.border_values = kernel.x * kernel.f * from.f;
    product.digits = ints(kernel.y, kernel.x, kernel.f, 0);
    product.steps = ints(taps.y, taps.x, taps.f, taps.b);
    plan_product(plan, product, weights, parameters);
  }

  void plan_depthwise(Plan& plan, std::span<const Operand> weights,
                      const UnitParameters& parameters) const {
    const Tensor& in = plan.input(0).tensor;
    const Tensor& out = plan.output().tensor;
    const Tensor& kernel = weights[0].tensor;
    const Strides taps = strides_of(kernel);
    const int64_t depth = in.f * in.b;
    const int64_t tap_count = kernel.x * kernel.y;
    const Slot* packed = plan.scratch(times(tap_count, depth));
    for (size_t part = 0; part < parts_; ++part) {
      plan.prepare({"weights", "pack_depthwise"},
                   {weights[part].slot, packed, parameters.factors, as_int(kernel.x),
                    as_int(tap_count), ints(taps.y, taps.x, 0, 0),
                    as_int(static_cast<int64_t>(part)), as_int(in.f), as_int(in.b)},
                   {in.b, tap_count});
    }
    const Slot* biases = per_lane(plan, parameters.biases, in);
    const bool adds = parameters.addend != nullptr;
    plan.run({"depthwise", "depthwise"},
             {plan.input(0).slot, packed, biases, per_lane(plan, parameters.slopes, in),
              adds ? parameters.addend : biases, plan.output().slot, ints(in.x, in.y, depth, 0),
              window(kernel), ints(out.x, out.y), as_int(adds ? 1 : 0)},
             {blocks(depth, plan.engine().queue.lanes()), blocks(out.x, kDepthwisePixels), out.y});
  }

  // A value per feature as a value per feature and image.
  static const Slot* per_lane(Plan& plan, const Slot* values, const Tensor& in) {
    if (in.b == 1) return plan.keep(values);
    const int64_t depth = in.f * in.b;
    const Slot* wide = plan.scratch(depth);
    plan.prepare({"weights", "repeat"}, {values, wide, as_int(depth), as_int(in.b)}, {depth});
    return wide;
  }

  cldnn_tensor offset_;
  cldnn_tensor stride_;
  cldnn_tensor dilation_;
  float slope_;
  bool is_plain_;
  uint32_t parts_;
};

}  // namespace

std::unique_ptr<Primitive> make_convolution(const cldnn_primitive& header) {
  return std::make_unique<Convolution>(reinterpret_cast<const cldnn_convolution_desc&>(header));
}

}  // namespace ravu::opencl
