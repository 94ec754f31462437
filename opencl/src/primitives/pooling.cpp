// The largest or the average value of a window, per feature.
#include "primitives/Plan.h"
#include "primitives/Primitive.h"
#include "primitives/rules.h"
#include "runtime/Error.h"

namespace ravu::opencl {

namespace {

class Pooling final : public Primitive {
 public:
  explicit Pooling(const cldnn_pooling_desc& desc)
      : Primitive(desc.header),
        mode_(desc.mode),
        along_x_{desc.size.sizes[CLDNN_X], desc.stride.sizes[CLDNN_X],
                 desc.input_offset.sizes[CLDNN_X], 1},
        along_y_{desc.size.sizes[CLDNN_Y], desc.stride.sizes[CLDNN_Y],
                 desc.input_offset.sizes[CLDNN_Y], 1} {
    need_inputs(*this, 1);
  }

  Tensor shape(std::span<const Tensor> in) const override {
    need_plane_formats(*this, in[0]);
    if (mode_ != CLDNN_POOLING_MAX && mode_ != CLDNN_POOLING_AVERAGE) {
      refuse(id + ": there is no pooling mode " + std::to_string(mode_));
    }
    if (along_x_.size < 1 || along_y_.size < 1) refuse(id + ": an empty window");
    Tensor out = in[0];
    out.x = positions(*this, along_x_, in[0].x, Rounding::kUp);
    out.y = positions(*this, along_y_, in[0].y, Rounding::kUp);
    return out;
  }

  void plan(Plan& plan) const override {
    const Planes in = planes_of(plan.input(0).tensor);
    const Tensor& out = plan.output().tensor;
    plan.run(
        {"pooling", mode_ == CLDNN_POOLING_MAX ? "pooling_max" : "pooling_average"},
        {plan.input(0).slot, plan.output().slot, ints(in.rows, in.columns, in.depth, in.planes),
         ints(out.y, out.x), ints(along_x_.size, along_y_.size),
         ints(along_x_.stride, along_y_.stride), ints(along_x_.offset, along_y_.offset)},
        {blocks(in.depth, plan.engine().queue.lanes()), out.x, out.y * in.planes});
  }

 private:
  int32_t mode_;
  Window along_x_;
  Window along_y_;
};

}  // namespace

std::unique_ptr<Primitive> make_pooling(const cldnn_primitive& header) {
  return std::make_unique<Pooling>(reinterpret_cast<const cldnn_pooling_desc&>(header));
}

}  // namespace ravu::opencl
