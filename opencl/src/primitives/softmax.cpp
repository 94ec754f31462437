// Groups of values that become probabilities: over features, rows, columns, planes, images or all.
#include <string_view>

#include "primitives/Plan.h"
#include "primitives/Primitive.h"
#include "primitives/rules.h"
#include "runtime/Error.h"

namespace ravu::opencl {

namespace {

// The dimensions that a group runs over.
std::string_view members_of(const Primitive& primitive, int32_t dimension) {
  switch (dimension) {
    case CLDNN_SOFTMAX_F:
      return "f";
    case CLDNN_SOFTMAX_X:
      return "x";
    case CLDNN_SOFTMAX_Y:
      return "y";
    case CLDNN_SOFTMAX_YX:
      return "yx";
    case CLDNN_SOFTMAX_FYX:
      return "fyx";
    case CLDNN_SOFTMAX_BFYX:
      return "bfyx";
    default:
      refuse(primitive.id + ": there is no softmax dimension " + std::to_string(dimension));
  }
}

class Softmax final : public Primitive {
 public:
  explicit Softmax(const cldnn_softmax_desc& desc)
      : Primitive(desc.header), dimension_(desc.dimension) {
    need_inputs(*this, 1);
  }

  Tensor shape(std::span<const Tensor> in) const override {
    need_plane_formats(*this, in[0]);
    members_of(*this, dimension_);
    Tensor out = in[0];
    if (in[0].x == 1 && in[0].y == 1) std::swap(out.f, out.x);  // the memory is the same
    return out;
  }

  void plan(Plan& plan) const override {
    const Tensor& in = plan.input(0).tensor;
    const Strides strides = strides_of(in);
    const std::string_view members = members_of(*this, dimension_);
    std::array<int64_t, 4> group_sizes{1, 1, 1, 1};
    std::array<int64_t, 4> member_sizes{1, 1, 1, 1};
    std::array<int64_t, 4> steps{};
    const std::array<char, 4> order = memory_order(in.format);
    for (size_t i = 0; i < 4; ++i) {
      const bool is_member = members.find(order[i]) != std::string_view::npos;
      (is_member ? member_sizes : group_sizes)[i] = size_along(in, order[i]);
      steps[i] = stride_along(strides, order[i]);
    }
    const Walk groups = walk(group_sizes, steps, /*lanes=*/1);
    const Walk within = walk(member_sizes, steps, /*lanes=*/1);
    plan.run({"softmax", "softmax"},
             {plan.input(0).slot, plan.output().slot, groups.sizes, groups.steps, within.sizes,
              within.steps},
             groups.work);
  }

 private:
  int32_t dimension_;
};

}  // namespace

std::unique_ptr<Primitive> make_softmax(const cldnn_primitive& header) {
  return std::make_unique<Softmax>(reinterpret_cast<const cldnn_softmax_desc&>(header));
}

}  // namespace ravu::opencl
