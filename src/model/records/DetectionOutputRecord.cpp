// Record "detectionout".
#include "layers/DetectionOutputLayer.h"
#include "model/records/records.h"

namespace ravu {

LayerPtr read_detection_output(const Record& record, const LayerRow& row) {
  auto layer = make_layer<DetectionOutputLayer>(row);
  DetectionOutputLayer& detection = *layer;
  const auto need_unsigned = [&record](std::string_view key) {
    return static_cast<std::uint32_t>(need_int(record, key));
  };
  detection.num_classes = need_unsigned("num_classes");
  detection.share_location = need_int(record, "share_location") != 0;
  detection.num_loc_classes = need_unsigned("num_loc_classes");
  detection.background_label_id = need_int(record, "background_label_id");
  detection.code_type = need_unsigned("code_type");
  detection.variance_encoded_in_target = need_int(record, "variance_encoded_in_target") != 0;
  detection.top_k = need_int(record, "top_k");
  detection.keep_top_k = need_int(record, "keep_top_k");
  detection.confidence_threshold = get_float(record, "confidence_threshold", 0.0F);
  detection.nms_threshold = get_float(record, "nms_threshold", 0.0F);
  // Kept: an absent eta is 0, where 1 (no shrinking) is customary.
  detection.eta = get_float(record, "eta", 0.0F);
  LayerPtr wired = wire(record, row, std::move(layer), [&](const Blob&) {
    return detection_output_shape(detection, record.state->network->layout);
  });
  if (detection.inputs.size() > 2) {
    detection.num_priors = static_cast<std::int32_t>(detection.inputs[2]->dims[3]) >> 2;
  }
  return wired;
}

std::uint8_t* write_detection_output(const BaseLayer& layer, bool) {
  const auto& detection = static_cast<const DetectionOutputLayer&>(layer);
  const auto size = [](std::uint32_t n) { return make_int(static_cast<std::int32_t>(n)); };
  std::uint8_t* record = make_record("detectionout");
  record = add(record, "num_classes", size(detection.num_classes));
  record = add(record, "share_location", make_int(detection.share_location ? 1 : 0));
  record = add(record, "num_loc_classes", size(detection.num_loc_classes));
  record = add(record, "background_label_id", make_int(detection.background_label_id));
  record = add(record, "code_type", size(detection.code_type));
  record = add(record, "variance_encoded_in_target",
               make_int(detection.variance_encoded_in_target ? 1 : 0));
  record = add(record, "keep_top_k", make_int(detection.keep_top_k));
  record = add(record, "confidence_threshold", make_float(detection.confidence_threshold));
  record = add(record, "nms_threshold", make_float(detection.nms_threshold));
  record = add(record, "eta", make_float(detection.eta));
  return add(record, "top_k", make_int(detection.top_k));
}

}  // namespace ravu
