// A fully connected product: one image is one "pixel", all its values are the terms, taken in the
// order in which they stand in memory.
#include "primitives/Plan.h"
#include "primitives/Primitive.h"
#include "primitives/products.h"
#include "primitives/rules.h"
#include "runtime/Error.h"

namespace ravu::opencl {

namespace {

class FullyConnected final : public Primitive {
 public:
  explicit FullyConnected(const cldnn_fully_connected_desc& desc)
      : Primitive(desc.header),
        slope_(desc.with_activation != 0 ? desc.activation_slope : 1),
        is_plain_(desc.with_activation == 0) {
    need_inputs(*this, 1);
    inputs.push_back(text_of(desc.weights, "weights"));
    const std::string bias = text_of(desc.bias, "bias");
    if (!bias.empty()) inputs.push_back(bias);
  }

  Tensor shape(std::span<const Tensor> in) const override {
    for (const Tensor& tensor : in.first(2)) need_plane_formats(*this, tensor);
    const auto terms = [](const Tensor& tensor) {
      return times(tensor.f, times(tensor.x, tensor.y));
    };
    if (terms(in[0]) != terms(in[1])) {
      refuse(id + ": weights of " + text(in[1]) + " do not fit an input of " + text(in[0]) +
             " (b, f, x, y)");
    }
    const bool planar = in[0].format == CLDNN_FORMAT_BFYX && in[0].b == 1;
    return {planar ? CLDNN_FORMAT_BFYX : CLDNN_FORMAT_YXFB, in[0].b, 1, in[1].b, 1};
  }

  void check(std::span<const Tensor> in, const Tensor&) const override {
    if (in.size() > 2 && count(in[2]) != in[1].b) {
      refuse(id + ": " + std::to_string(in[1].b) + " neurons need as many biases");
    }
  }

  void plan(Plan& plan) const override {
    const Tensor& in = plan.input(0).tensor;
    const Strides from = strides_of(in);
    const Strides to = strides_of(plan.output().tensor);
    const int64_t units = plan.input(1).tensor.b;
    const bool planar = in.format == CLDNN_FORMAT_BFYX;
    Product product;
    product.terms = in.f * in.x * in.y;
    product.image = ints(1, 1, 0, 0, planar ? 1 : in.b, from.b, product.terms, 0);
    product.window = ints(1, 1, 1, 1, 0, 0, 1, 1);
    product.result = ints(1, 1, in.b, units, to.x, 0, 0, to.b);
    product.pixels = in.b;
    product.units = units;
    product.digits = planar ? ints(in.f, in.y, in.x, 0) : ints(in.y, in.x, in.f, 0);
    product.steps = weight_steps(plan.input(1).tensor.format, in, units);
    std::vector<Operand> biases;
    if (plan.input_count() > 2) biases.push_back(plan.input(2));
    const Operand weights = plan.input(1);
    plan_product(plan, product, {&weights, 1}, fold_followers(plan, units, biases, slope_));
  }

  bool is_product() const override { return is_plain_; }
  bool wants_constant(size_t position) const override { return position > 0; }

 private:
  // Rows per input position (yxfb) count positions as (y, x, feature), rows per neuron (bfyx) as
  // (feature, y, x), whatever order the input has.
  static cl_int4 weight_steps(int32_t format, const Tensor& in, int64_t units) {
    int64_t feature = in.y * in.x;
    int64_t row = in.x;
    int64_t column = 1;
    int64_t unit = in.f * in.y * in.x;
    if (format == CLDNN_FORMAT_YXFB) {
      feature = units;
      column = in.f * units;
      row = in.x * column;
      unit = 1;
    }
    return in.format == CLDNN_FORMAT_BFYX ? ints(feature, row, column, unit)
                                          : ints(row, column, feature, unit);
  }

  float slope_;
  bool is_plain_;
};

}  // namespace

std::unique_ptr<Primitive> make_fully_connected(const cldnn_primitive& header) {
  return std::make_unique<FullyConnected>(
      reinterpret_cast<const cldnn_fully_connected_desc&>(header));
}

}  // namespace ravu::opencl
