// Normalisation per feature, with stored statistics or with those of the values at hand.
#include "primitives/Plan.h"
#include "primitives/Primitive.h"
#include "primitives/rules.h"
#include "runtime/Error.h"

namespace ravu::opencl {

namespace {

class BatchNorm final : public Primitive {
 public:
  explicit BatchNorm(const cldnn_batch_norm_desc& desc)
      : Primitive(desc.header),
        is_global_(desc.use_global_statistics != 0),
        epsilon_(desc.epsilon) {
    need_inputs(*this, 1);
    inputs.push_back(text_of(desc.mean, "mean"));
    inputs.push_back(text_of(desc.variance, "variance"));
  }

  Tensor shape(std::span<const Tensor> in) const override {
    for (const Tensor& tensor : in) need_plane_formats(*this, tensor);
    return in[0];
  }

  void check(std::span<const Tensor> in, const Tensor&) const override {
    for (const Tensor& statistic : in.subspan(1)) {
      if (count(statistic) < in[0].f) {
        refuse(id + ": " + std::to_string(in[0].f) + " features need as many means and variances");
      }
    }
  }

  void plan(Plan& plan) const override {
    const Operand& in = plan.input(0);
    const Slot* out = plan.output().slot;
    if (is_global_) {
      const Walk beside = walk_features(in.tensor, plan.engine().queue.lanes());
      plan.run({"batch_norm", "batch_norm"},
               {in.slot, plan.input(1).slot, plan.input(2).slot, out, epsilon_, beside.sizes,
                beside.steps},
               beside.work);
      return;
    }
    const int64_t run = feature_run(in.tensor);
    const int64_t step = run * in.tensor.f;
    plan.run({"batch_norm", "batch_norm_own"},
             {in.slot, out, epsilon_, as_int(in.tensor.f), as_int(run),
              as_int(count(in.tensor) / step), as_int(step)},
             {in.tensor.f});
  }

  std::optional<Epilogue> epilogue(size_t position, std::span<const Tensor>) const override {
    if (position != 0 || !is_global_) return std::nullopt;
    return Epilogue{Epilogue::Form::kNormalise, epsilon_, 1, 2};
  }

 private:
  bool is_global_;
  float epsilon_;
};

}  // namespace

std::unique_ptr<Primitive> make_batch_norm(const cldnn_primitive& header) {
  return std::make_unique<BatchNorm>(reinterpret_cast<const cldnn_batch_norm_desc&>(header));
}

}  // namespace ravu::opencl
