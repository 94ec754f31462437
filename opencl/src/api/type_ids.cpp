// The type ids: one function per kind, all alike.
#include "api/guard.h"
#include "primitives/Primitive.h"

using namespace ravu::opencl;

namespace {

cldnn_type_id type_id(const char* name, cldnn_status* status) {
  return guarded(status, [&] { return kind_named(name); });
}

}  // namespace

cldnn_type_id cldnn_activation_type_id(cldnn_status* status) {
  return type_id("activation", status);
}
cldnn_type_id cldnn_batch_norm_type_id(cldnn_status* status) {
  return type_id("batch_norm", status);
}
cldnn_type_id cldnn_concatenation_type_id(cldnn_status* status) {
  return type_id("concatenation", status);
}
cldnn_type_id cldnn_convolution_type_id(cldnn_status* status) {
  return type_id("convolution", status);
}
cldnn_type_id cldnn_crop_type_id(cldnn_status* status) {
  return type_id("crop", status);
}
cldnn_type_id cldnn_data_type_id(cldnn_status* status) {
  return type_id("data", status);
}
cldnn_type_id cldnn_detection_output_type_id(cldnn_status* status) {
  return type_id("detection_output", status);
}
cldnn_type_id cldnn_eltwise_type_id(cldnn_status* status) {
  return type_id("eltwise", status);
}
cldnn_type_id cldnn_fully_connected_type_id(cldnn_status* status) {
  return type_id("fully_connected", status);
}
cldnn_type_id cldnn_input_layout_type_id(cldnn_status* status) {
  return type_id("input_layout", status);
}
cldnn_type_id cldnn_lrn_type_id(cldnn_status* status) {
  return type_id("lrn", status);
}
cldnn_type_id cldnn_normalize_type_id(cldnn_status* status) {
  return type_id("normalize", status);
}
cldnn_type_id cldnn_permute_type_id(cldnn_status* status) {
  return type_id("permute", status);
}
cldnn_type_id cldnn_pooling_type_id(cldnn_status* status) {
  return type_id("pooling", status);
}
cldnn_type_id cldnn_prior_box_type_id(cldnn_status* status) {
  return type_id("prior_box", status);
}
cldnn_type_id cldnn_proposal_type_id(cldnn_status* status) {
  return type_id("proposal", status);
}
cldnn_type_id cldnn_reorder_type_id(cldnn_status* status) {
  return type_id("reorder", status);
}
cldnn_type_id cldnn_reshape_type_id(cldnn_status* status) {
  return type_id("reshape", status);
}
cldnn_type_id cldnn_scale_type_id(cldnn_status* status) {
  return type_id("scale", status);
}
cldnn_type_id cldnn_softmax_type_id(cldnn_status* status) {
  return type_id("softmax", status);
}
