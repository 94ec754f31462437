// L2 normalisation over the features of a pixel or over a whole image, then a scale.
#include "primitives/Plan.h"
#include "primitives/Primitive.h"
#include "primitives/rules.h"

namespace ravu::opencl {

namespace {

constexpr int64_t kHelpers = 64;  // HELPERS of normalize.cl

class Normalize final : public Primitive {
 public:
  explicit Normalize(const cldnn_normalize_desc& desc)
      : Primitive(desc.header), across_spatial_(desc.across_spatial != 0), epsilon_(desc.epsilon) {
    need_inputs(*this, 1);
    inputs.push_back(text_of(desc.scale_input, "scale"));
  }

  Tensor shape(std::span<const Tensor> in) const override {
    need_plane_formats(*this, in[0]);
    return in[0];
  }

  void check(std::span<const Tensor> in, const Tensor&) const override {
    if (in[1].x != 1) need_values_along_x(*this, in[1], in[0].f, "scales");
    if (in[1].x == 1) need_values_along_x(*this, in[1], 1, "scale");
  }

  void plan(Plan& plan) const override {
    const Tensor& in = plan.input(0).tensor;
    const int64_t run = feature_run(in);
    const int64_t scale_step = plan.input(1).tensor.x == 1 ? 0 : 1;
    if (!across_spatial_) {
      const int64_t pixels = count(in) / (in.f * run);
      plan.run({"normalize", "normalize_pixel"},
               {plan.input(0).slot, plan.input(1).slot, plan.output().slot, as_int(in.f),
                as_int(run), as_int(pixels), as_int(scale_step), epsilon_},
               {run, pixels});
      return;
    }
    // In both formats the values of one image are evenly spaced.
    const Strides strides = strides_of(in);
    const int64_t step = in.format == CLDNN_FORMAT_YXFB ? in.b : 1;
    plan.run_in_groups(
        {"normalize", "normalize_image"},
        {plan.input(0).slot, plan.input(1).slot, plan.output().slot, as_int(count(in) / in.b),
         as_int(step), as_int(strides.b), as_int(in.f), as_int(run), as_int(scale_step), epsilon_},
        {in.b}, {kHelpers});
  }

 private:
  bool across_spatial_;
  float epsilon_;
};

}  // namespace

std::unique_ptr<Primitive> make_normalize(const cldnn_primitive& header) {
  return std::make_unique<Normalize>(reinterpret_cast<const cldnn_normalize_desc&>(header));
}

}  // namespace ravu::opencl
