// The kinds without a kernel: what comes from outside, constants, and another view of the same
// memory.
#include "objects/Memory.h"
#include "primitives/Plan.h"
#include "primitives/Primitive.h"
#include "runtime/Error.h"

namespace ravu::opencl {

namespace {

class InputLayout final : public Primitive {
 public:
  explicit InputLayout(const cldnn_input_layout_desc& desc)
      : Primitive(desc.header), layout_(normalised(desc.layout)) {
    need_inputs(*this, 0);
  }
  Tensor shape(std::span<const Tensor>) const override { return tensor_of(layout_); }
  void plan(Plan&) const override {}
  const cldnn_layout* input_layout() const override { return &layout_; }

 private:
  cldnn_layout layout_;
};

class Data final : public Primitive {
 public:
  explicit Data(const cldnn_data_desc& desc) : Primitive(desc.header) {
    need_inputs(*this, 0);
    if (desc.memory == nullptr) refuse(id + ": the memory is null");
    memory_ = Ref<Memory>::share(desc.memory);
  }
  Tensor shape(std::span<const Tensor>) const override { return tensor_of(memory_->layout); }
  void plan(Plan&) const override {}
  cldnn_memory constant() const override { return memory_.get(); }

 private:
  Ref<Memory> memory_;
};

class Reshape final : public Primitive {
 public:
  explicit Reshape(const cldnn_reshape_desc& desc)
      : Primitive(desc.header), wanted_(sizes_of(desc.output_shape, CLDNN_FORMAT_YXFB)) {
    need_inputs(*this, 1);
  }
  Tensor shape(std::span<const Tensor> in) const override {
    Tensor out = wanted_;
    out.format = in[0].format;
    return out;
  }
  void check(std::span<const Tensor> in, const Tensor& out) const override {
    if (count(in[0]) == count(out)) return;
    refuse(id + ": " + text(in[0]) + " cannot be seen as " + text(out) + " (b, f, x, y)");
  }
  void plan(Plan&) const override {}
  bool is_view() const override { return true; }

 private:
  Tensor wanted_;
};

}  // namespace

std::unique_ptr<Primitive> make_input_layout(const cldnn_primitive& header) {
  return std::make_unique<InputLayout>(reinterpret_cast<const cldnn_input_layout_desc&>(header));
}

std::unique_ptr<Primitive> make_data(const cldnn_primitive& header) {
  return std::make_unique<Data>(reinterpret_cast<const cldnn_data_desc&>(header));
}

std::unique_ptr<Primitive> make_reshape(const cldnn_primitive& header) {
  return std::make_unique<Reshape>(reinterpret_cast<const cldnn_reshape_desc&>(header));
}

}  // namespace ravu::opencl
