// The last stage of a single-shot detector: decodes boxes against the prior boxes, suppresses
// overlapping ones per class, limits their number and writes one table of detections.
#pragma once

#include <optional>
#include <vector>

#include "graph/BaseLayer.h"

namespace ravu {

// A prior whose score in some class passes the threshold.
struct Candidate {
  float score;
  std::uint32_t prior;
};

// One row of the output before it is written.
struct Detection {
  std::uint32_t image;
  std::uint32_t label;
  std::uint32_t prior;
  float score;
  float xmin, ymin, xmax, ymax;
};

// What a run works with; kept in the layer so that the next run reuses the storage.
struct DetectionWork {
  std::vector<std::uint32_t> class_ends;  // of each class's candidates
  std::vector<Candidate> candidates;      // of one image, class after class
  std::vector<float> columns;             // one class's boxes, coordinate by coordinate
  std::vector<std::uint32_t> survivors;   // positions among one class's candidates
  std::vector<Detection> detections;      // of all images, as many as the output has room for
};

// Inputs: locations (image, prior, location class, coordinate), confidences (image, prior, class),
// and the prior boxes followed by their variances. The first one's dims[0] is the batch.
class DetectionOutputLayer : public BaseLayer {
 public:
  std::uint32_t num_classes = 0;
  std::int32_t num_priors = 0;  // a quarter of the prior Blob's last dim when the model was loaded
  bool share_location = false;  // the boxes of a prior serve all classes
  std::uint32_t num_loc_classes = 0;
  std::uint32_t code_type = 0;  // kernels::kCornerBox and so on
  bool variance_encoded_in_target = false;
  std::int32_t keep_top_k = 0;        // detections of an image; negative: all
  float confidence_threshold = 0.0F;  // only greater scores count
  float nms_threshold = 0.0F;         // only greater overlaps suppress
  float eta = 0.0F;                   // shrinks the overlap threshold after each kept box
  std::int32_t top_k = 0;             // candidates of a class; negative: all
  std::int32_t background_label_id = 0;
  DetectionWork work;

  bool Forward(std::uint32_t mode) override;
  void AddPrimitives(cldnn_topology_impl* topology, cldnn_engine_impl* engine,
                     std::uint32_t data_type, Aliases& aliases) override;
};

// 1 x 1 x keep_top_k x 7: rows of image, label, score, xmin, ymin, xmax, ymax. No rows when
// keep_top_k is negative; none when it is too large.
std::optional<Shape> detection_output_shape(const DetectionOutputLayer& layer,
                                            std::uint32_t layout);

Fit fits(const DetectionOutputLayer& layer);

}  // namespace ravu
