// The kinds that only move values: crop, permute, reorder. Each says where in the input the
// output's neighbours stand.
#include <algorithm>
#include <array>

#include "primitives/Plan.h"
#include "primitives/Primitive.h"
#include "primitives/rules.h"
#include "runtime/Error.h"

namespace ravu::opencl {

namespace {

// Sizes and steps in the output's memory order, slowest first.
void plan_copy(Plan& plan, int64_t start, const std::array<int64_t, 4>& sizes,
               const std::array<int64_t, 4>& steps) {
  const Walk beside = walk(sizes, steps, plan.engine().queue.lanes());
  plan.run({"copy", "copy"},
           {plan.input(0).slot, plan.output().slot, as_int(start), beside.sizes, beside.steps},
           beside.work);
}

// The part of the input that starts at the offsets.
class Crop final : public Primitive {
 public:
  explicit Crop(const cldnn_crop_desc& desc)
      : Primitive(desc.header),
        reference_(sizes_of(desc.reference_size, CLDNN_FORMAT_YXFB)),
        offsets_{CLDNN_FORMAT_YXFB, desc.offsets.sizes[CLDNN_BATCH],
                 desc.offsets.sizes[CLDNN_FEATURE], desc.offsets.sizes[CLDNN_X],
                 desc.offsets.sizes[CLDNN_Y]} {
    need_inputs(*this, 1);
  }

  Tensor shape(std::span<const Tensor> in) const override {
    need_plane_formats(*this, in[0]);
    Tensor out = reference_;
    out.format = in[0].format;
    return out;
  }

  void check(std::span<const Tensor> in, const Tensor&) const override {
    for (char dimension : {'b', 'f', 'x', 'y'}) {
      const int64_t offset = size_along(offsets_, dimension);
      if (offset < 0 || offset + size_along(reference_, dimension) > size_along(in[0], dimension)) {
        refuse(id + ": the crop reaches out of its input along " + dimension);
      }
    }
  }

  void plan(Plan& plan) const override {
    const Tensor& in = plan.input(0).tensor;
    const Strides strides = strides_of(in);
    int64_t start = 0;
    std::array<int64_t, 4> sizes{};
    std::array<int64_t, 4> steps{};
    const std::array<char, 4> order = memory_order(in.format);
    for (size_t i = 0; i < 4; ++i) {
      sizes[i] = size_along(reference_, order[i]);
      steps[i] = stride_along(strides, order[i]);
      start += size_along(offsets_, order[i]) * steps[i];
    }
    plan_copy(plan, start, sizes, steps);
  }

 private:
  Tensor reference_;
  Tensor offsets_;
};

// The memory's axes in another order. The declared sizes follow the tensor's own order b, f, x, y
// instead, so that they can fail to describe the memory; that belongs to the interface.
class Permute final : public Primitive {
 public:
  explicit Permute(const cldnn_permute_desc& desc) : Primitive(desc.header) {
    need_inputs(*this, 1);
    if (desc.order.data == nullptr || desc.order.size != order_.size()) {
      refuse(id + ": an order of four entries is needed");
    }
    std::copy_n(desc.order.data, order_.size(), order_.begin());
    for (std::size_t wanted = 0; wanted < order_.size(); ++wanted) {
      if (std::count(order_.begin(), order_.end(), wanted) != 1) {
        refuse(id + ": the order must hold each of 0 to 3 once");
      }
    }
  }

  Tensor shape(std::span<const Tensor> in) const override {
    const std::array<int64_t, 4> sizes = {in[0].b, in[0].f, in[0].x, in[0].y};
    return {in[0].format, sizes[order_[0]], sizes[order_[1]], sizes[order_[2]], sizes[order_[3]]};
  }

  void plan(Plan& plan) const override {
    const Tensor& in = plan.input(0).tensor;
    const Strides strides = strides_of(in);
    const std::array<char, 4> axes = memory_order(in.format);
    std::array<int64_t, 4> sizes{};
    std::array<int64_t, 4> steps{};
    for (size_t i = 0; i < 4; ++i) {
      sizes[i] = size_along(in, axes[order_[i]]);
      steps[i] = stride_along(strides, axes[order_[i]]);
    }
    plan_copy(plan, 0, sizes, steps);
  }

 private:
  std::array<uint16_t, 4> order_{};
};

// The same values in another format.
class Reorder final : public Primitive {
 public:
  explicit Reorder(const cldnn_reorder_desc& desc)
      : Primitive(desc.header), format_(desc.output_format), data_type_(desc.output_data_type) {
    need_inputs(*this, 1);
    subtracts_ = !text_of(desc.mean, "mean").empty() || desc.subtract.size > 0;
  }

  Tensor shape(std::span<const Tensor> in) const override {
    if (subtracts_) refuse(id + ": subtracting while reordering is not supported");
    if (data_type_ != CLDNN_FLOAT32) refuse(id + ": only single precision is computed on");
    memory_order(format_);  // refuses unknown ones
    Tensor out = in[0];
    out.format = format_;
    return out;
  }

  void plan(Plan& plan) const override {
    const Tensor& in = plan.input(0).tensor;
    const Strides strides = strides_of(in);
    const std::array<char, 4> axes = memory_order(format_);
    std::array<int64_t, 4> sizes{};
    std::array<int64_t, 4> steps{};
    for (size_t i = 0; i < 4; ++i) {
      sizes[i] = size_along(in, axes[i]);
      steps[i] = stride_along(strides, axes[i]);
    }
    plan_copy(plan, 0, sizes, steps);
  }

 private:
  int32_t format_;
  int32_t data_type_;
  bool subtracts_ = false;
};

}  // namespace

std::unique_ptr<Primitive> make_crop(const cldnn_primitive& header) {
  return std::make_unique<Crop>(reinterpret_cast<const cldnn_crop_desc&>(header));
}

std::unique_ptr<Primitive> make_permute(const cldnn_primitive& header) {
  return std::make_unique<Permute>(reinterpret_cast<const cldnn_permute_desc&>(header));
}

std::unique_ptr<Primitive> make_reorder(const cldnn_primitive& header) {
  return std::make_unique<Reorder>(reinterpret_cast<const cldnn_reorder_desc&>(header));
}

}  // namespace ravu::opencl
