// The table of kinds. The address of a row is the kind's type id.
#include "primitives/Primitive.h"
#include "runtime/Error.h"

namespace ravu::opencl {

namespace {

const cldnn_primitive_kind kKinds[] = {
    {"activation", make_activation},
    {"batch_norm", make_batch_norm},
    {"concatenation", make_concatenation},
    {"convolution", make_convolution},
    {"crop", make_crop},
    {"data", make_data},
    {"detection_output", make_detection_output},
    {"eltwise", make_eltwise},
    {"fully_connected", make_fully_connected},
    {"input_layout", make_input_layout},
    {"lrn", make_lrn},
    {"normalize", make_normalize},
    {"permute", make_permute},
    {"pooling", make_pooling},
    {"prior_box", make_prior_box},
    {"proposal", make_proposal},
    {"reorder", make_reorder},
    {"reshape", make_reshape},
    {"scale", make_scale},
    {"softmax", make_softmax},
};

}  // namespace

const cldnn_primitive_kind& kind_of(cldnn_type_id type) {
  for (const cldnn_primitive_kind& kind : kKinds) {
    if (&kind == type) return kind;
  }
  refuse("the type is none of this library's");
}

cldnn_type_id kind_named(const char* name) {
  for (const cldnn_primitive_kind& kind : kKinds) {
    if (std::string(name) == kind.name) return &kind;
  }
  refuse(std::string("there is no kind ") + name);
}

std::unique_ptr<Primitive> make_proposal(const cldnn_primitive&) {
  refuse("proposal is not supported");
}

}  // namespace ravu::opencl
