// Local response normalisation, across features or within the plane of one.
#include "primitives/Plan.h"
#include "primitives/Primitive.h"
#include "primitives/rules.h"
#include "runtime/Error.h"

namespace ravu::opencl {

namespace {

constexpr uint32_t kLargestWindow = 1 << 20;

class Lrn final : public Primitive {
 public:
  explicit Lrn(const cldnn_lrn_desc& desc)
      : Primitive(desc.header),
        size_(desc.size),
        k_(desc.k),
        alpha_(desc.alpha),
        beta_(desc.beta),
        region_(desc.region) {
    need_inputs(*this, 1);
  }

  Tensor shape(std::span<const Tensor> in) const override {
    need_plane_formats(*this, in[0]);
    if (size_ == 0 || size_ > kLargestWindow) {
      refuse(id + ": there is no window of " + std::to_string(size_));
    }
    if (region_ != CLDNN_LRN_ACROSS_CHANNELS && region_ != CLDNN_LRN_WITHIN_CHANNEL) {
      refuse(id + ": there is no region " + std::to_string(region_));
    }
    return in[0];
  }

  void plan(Plan& plan) const override {
    const Operand& in = plan.input(0);
    const Slot* out = plan.output().slot;
    const auto size = static_cast<float>(size_);
    if (region_ == CLDNN_LRN_ACROSS_CHANNELS) {
      const int64_t values = count(in.tensor);
      plan.run({"lrn", "lrn_across"},
               {in.slot, out, as_int(values), as_int(in.tensor.f), as_int(feature_run(in.tensor)),
                as_int(size_), k_, alpha_ / size, beta_},
               {blocks(values, plan.engine().queue.lanes())});
      return;
    }
    const Planes planes = planes_of(in.tensor);
    plan.run({"lrn", "lrn_within"},
             {in.slot, out, as_int(planes.rows), as_int(planes.columns), as_int(planes.depth),
              as_int(planes.planes), as_int(size_), k_, alpha_ / (size * size), beta_},
             {planes.depth, planes.columns, planes.rows * planes.planes});
  }

 private:
  uint32_t size_;
  float k_;
  float alpha_;
  float beta_;
  int32_t region_;
};

}  // namespace

std::unique_ptr<Primitive> make_lrn(const cldnn_primitive& header) {
  return std::make_unique<Lrn>(reinterpret_cast<const cldnn_lrn_desc&>(header));
}

}  // namespace ravu::opencl
