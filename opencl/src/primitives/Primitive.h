// What every kind of primitive says about itself: what it reads, what comes out, what it refuses,
// and what has to run. A primitive is made from a descriptor, once, and does not change afterwards:
// topologies and programs share it.
#pragma once

#include <memory>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "cldnn/cldnn.h"
#include "primitives/Epilogue.h"
#include "primitives/Tensor.h"

namespace ravu::opencl {

class Plan;

class Primitive {
 public:
  explicit Primitive(const cldnn_primitive& header);
  virtual ~Primitive() = default;

  std::string id;
  // The ids of what it reads: the header's inputs, then those of the other fields, in the
  // interface's order. The lists below are in the same order.
  std::vector<std::string> inputs;

  // When the program is built: the output. Refuses what no kernel takes.
  virtual Tensor shape(std::span<const Tensor> in) const = 0;
  // When the network is allocated: refuses inputs that do not fit together.
  virtual void check(std::span<const Tensor>, const Tensor& /*out*/) const {}
  // When the network is allocated: what runs at each execution.
  virtual void plan(Plan& plan) const = 0;

  // What it does to the result of the product that it reads as inputs[position], where a product's
  // kernel can do that itself.
  virtual std::optional<Epilogue> epilogue(size_t /*position*/, std::span<const Tensor>) const {
    return std::nullopt;
  }
  // A product: its kernel can do what epilogues say.
  virtual bool is_product() const { return false; }
  // Reads inputs[position] when the network is allocated, and only then: it has to be a constant.
  virtual bool wants_constant(size_t /*position*/) const { return false; }

  // The kinds that have no kernel: the network's inputs, constants, other views of the same memory.
  virtual const cldnn_layout* input_layout() const { return nullptr; }
  virtual cldnn_memory constant() const { return nullptr; }
  virtual bool is_view() const { return false; }
};

// For the constructors: refuse null texts and lists, and a wrong number of header inputs.
std::string text_of(cldnn_id text, const char* what);
std::vector<std::string> ids_of(const cldnn_id_list& list, const char* what);
std::vector<float> floats_of(const cldnn_float_list& list, const char* what);
void need_inputs(const Primitive& primitive, size_t wanted);

}  // namespace ravu::opencl

// What a type id points to.
struct cldnn_primitive_kind {
  const char* name;
  std::unique_ptr<ravu::opencl::Primitive> (*make)(const cldnn_primitive& header);
};

namespace ravu::opencl {

// The kind of a type id. Refuses pointers that are none.
const cldnn_primitive_kind& kind_of(cldnn_type_id type);
cldnn_type_id kind_named(const char* name);

// One per kind, in its own file.
std::unique_ptr<Primitive> make_activation(const cldnn_primitive& header);
std::unique_ptr<Primitive> make_batch_norm(const cldnn_primitive& header);
std::unique_ptr<Primitive> make_concatenation(const cldnn_primitive& header);
std::unique_ptr<Primitive> make_convolution(const cldnn_primitive& header);
std::unique_ptr<Primitive> make_crop(const cldnn_primitive& header);
std::unique_ptr<Primitive> make_data(const cldnn_primitive& header);
std::unique_ptr<Primitive> make_detection_output(const cldnn_primitive& header);
std::unique_ptr<Primitive> make_eltwise(const cldnn_primitive& header);
std::unique_ptr<Primitive> make_fully_connected(const cldnn_primitive& header);
std::unique_ptr<Primitive> make_input_layout(const cldnn_primitive& header);
std::unique_ptr<Primitive> make_lrn(const cldnn_primitive& header);
std::unique_ptr<Primitive> make_normalize(const cldnn_primitive& header);
std::unique_ptr<Primitive> make_permute(const cldnn_primitive& header);
std::unique_ptr<Primitive> make_pooling(const cldnn_primitive& header);
std::unique_ptr<Primitive> make_prior_box(const cldnn_primitive& header);
std::unique_ptr<Primitive> make_proposal(const cldnn_primitive& header);
std::unique_ptr<Primitive> make_reorder(const cldnn_primitive& header);
std::unique_ptr<Primitive> make_reshape(const cldnn_primitive& header);
std::unique_ptr<Primitive> make_scale(const cldnn_primitive& header);
std::unique_ptr<Primitive> make_softmax(const cldnn_primitive& header);

}  // namespace ravu::opencl
