// Image by image, class by class: candidates, suppression, limit. Boxes are decoded only for the
// candidates that are left after the cut to top_k.
#include "layers/DetectionOutputLayer.h"

#include <algorithm>
#include <limits>
#include <string>
#include <vector>

#include "graph/PrimitiveBuilder.h"
#include "kernels/kernels.h"

namespace ravu {
namespace {

constexpr std::int32_t kRowFloats = 7;

bool holds(const Blob& blob, std::int64_t images, std::int64_t priors, std::int64_t classes,
           std::int64_t values) {
  const auto shape = make_shape(images, priors, classes, values, blob.layout);
  return shape && shape->count <= blob.count;
}

// Classes below this number need locations of their own unless they are shared.
std::uint64_t classes_with_boxes(const DetectionOutputLayer& layer) {
  const std::int64_t classes = layer.num_classes;
  const bool last_is_background = classes > 0 && layer.background_label_id == classes - 1;
  return static_cast<std::uint64_t>(last_is_background ? classes - 1 : classes);
}

bool ready(const DetectionOutputLayer& layer) {
  return has_data(layer) && all_have_data(layer.inputs) && fits(layer);
}

bool better(const Candidate& a, const Candidate& b) {
  return a.score != b.score ? a.score > b.score : a.prior < b.prior;
}

// The order in which detections of an image compete for its keep_top_k rows.
bool more_certain(const Detection& a, const Detection& b) {
  if (a.score != b.score) return a.score > b.score;
  return a.label != b.label ? a.label < b.label : a.prior < b.prior;
}

// The order of an image's rows.
bool listed_before(const Detection& a, const Detection& b) {
  return a.label != b.label ? a.label < b.label : more_certain(a, b);
}

// Sorts the candidates of an image by class: counts those of each class, then places them, priors
// ascending.
void collect_candidates(DetectionOutputLayer& layer, std::size_t image) {
  const std::size_t classes = layer.num_classes;
  const auto priors = static_cast<std::size_t>(layer.num_priors);
  const float* scores = layer.inputs[1]->data + image * priors * classes;
  const float threshold = layer.confidence_threshold;
  auto& ends = layer.work.class_ends;
  ends.assign(classes, 0);
  for (std::size_t p = 0; p < priors; ++p) {
    for (std::size_t c = 0; c < classes; ++c) ends[c] += scores[p * classes + c] > threshold;
  }
  const std::int64_t background = layer.background_label_id;
  std::uint32_t total = 0;
  for (std::size_t c = 0; c < classes; ++c) {
    const std::uint32_t n = static_cast<std::int64_t>(c) == background ? 0 : ends[c];
    ends[c] = total;  // the start, which placing moves to the end
    total += n;
  }
  layer.work.candidates.resize(total);
  for (std::size_t p = 0; p < priors; ++p) {
    for (std::size_t c = 0; c < classes; ++c) {
      const float score = scores[p * classes + c];
      if (score > threshold && static_cast<std::int64_t>(c) != background) {
        layer.work.candidates[ends[c]++] = {score, static_cast<std::uint32_t>(p)};
      }
    }
  }
}

// Orders a class's candidates, best first, and returns how many top_k leaves.
std::size_t choose(const DetectionOutputLayer& layer, Candidate* first, std::size_t n) {
  Candidate* last = first + n;
  if (layer.top_k >= 0 && n > static_cast<std::size_t>(layer.top_k)) {
    Candidate* cut = first + layer.top_k;
    std::nth_element(first, cut, last, better);
    last = cut;
  }
  std::sort(first, last, better);
  return static_cast<std::size_t>(last - first);
}

// Where the location of a prior for a class stands.
// Kept: shared locations are listed prior by prior with all their location classes, and box p is
// entry p of that list; with more than one location class it is not the one of prior p.
std::size_t location_index(const DetectionOutputLayer& layer, std::size_t image, std::size_t label,
                           std::size_t prior) {
  const auto priors = static_cast<std::size_t>(layer.num_priors);
  const std::size_t classes = layer.num_loc_classes;
  if (layer.share_location) return image * priors * classes + prior;
  return (image * priors + prior) * classes + label;
}

kernels::BoxColumns columns_for(DetectionWork& work, std::size_t n) {
  const std::size_t length = n + kernels::kBoxPadding;
  if (work.columns.size() < 5 * length) work.columns.resize(5 * length);
  float* first = work.columns.data();
  return {first, first + length, first + 2 * length, first + 3 * length, first + 4 * length};
}

void decode_candidates(const DetectionOutputLayer& layer, std::size_t image, std::size_t label,
                       const Candidate* candidates, std::size_t n,
                       const kernels::BoxColumns& columns) {
  const float* locations = layer.inputs[0]->data;
  const float* priors = layer.inputs[2]->data;
  const float* variances = priors + static_cast<std::size_t>(layer.num_priors) * 4;
  for (std::size_t i = 0; i < n; ++i) {
    const std::size_t p = candidates[i].prior;
    const kernels::Box box = kernels::decode_box(
        layer.code_type, locations + location_index(layer, image, label, p) * 4, priors + p * 4,
        layer.variance_encoded_in_target ? nullptr : variances + p * 4);
    columns.xmin[i] = box.xmin;
    columns.ymin[i] = box.ymin;
    columns.xmax[i] = box.xmax;
    columns.ymax[i] = box.ymax;
    columns.size[i] = box.size;
  }
}

void detect_class(DetectionOutputLayer& layer, std::size_t image, std::size_t label,
                  Candidate* candidates, std::size_t found) {
  DetectionWork& work = layer.work;
  const std::size_t n = choose(layer, candidates, found);
  const kernels::BoxColumns columns = columns_for(work, n);
  decode_candidates(layer, image, label, candidates, n, columns);
  work.survivors.resize(n);
  const std::size_t kept =
      kernels::suppress(columns, n, layer.nms_threshold, layer.eta, work.survivors.data());
  for (std::size_t i = 0; i < kept; ++i) {
    const Candidate& candidate = candidates[work.survivors[i]];
    work.detections.push_back({static_cast<std::uint32_t>(image), static_cast<std::uint32_t>(label),
                               candidate.prior, candidate.score, columns.xmin[i], columns.ymin[i],
                               columns.xmax[i], columns.ymax[i]});
  }
}

// Cuts the detections from `first` on to the keep_top_k most certain ones.
void limit_image(DetectionOutputLayer& layer, std::size_t first) {
  auto& detections = layer.work.detections;
  const std::size_t found = detections.size() - first;
  if (layer.keep_top_k < 0 || found <= static_cast<std::size_t>(layer.keep_top_k)) return;
  const auto start = detections.begin() + static_cast<std::ptrdiff_t>(first);
  const auto cut = start + layer.keep_top_k;
  std::nth_element(start, cut, detections.end(), more_certain);
  detections.erase(cut, detections.end());
  std::sort(start, cut, listed_before);
}

void detect_image(DetectionOutputLayer& layer, std::size_t image) {
  const std::size_t first = layer.work.detections.size();
  collect_candidates(layer, image);
  std::size_t start = 0;
  for (std::size_t c = 0; c < layer.num_classes; ++c) {
    const std::size_t end = layer.work.class_ends[c];
    if (end > start) {
      detect_class(layer, image, c, layer.work.candidates.data() + start, end - start);
    }
    start = end;
  }
  limit_image(layer, first);
}

// Kept: the label of shared locations is -1, and a background of -1 leaves them all out.
bool no_label_counts(const DetectionOutputLayer& layer) {
  return layer.share_location && layer.background_label_id == -1;
}

void detect(DetectionOutputLayer& layer, std::size_t room) {
  auto& detections = layer.work.detections;
  detections.clear();
  if (no_label_counts(layer)) return;
  if (layer.num_priors == 0) return;
  for (std::size_t i = 0; i < layer.inputs[0]->dims[0] && detections.size() < room; ++i) {
    detect_image(layer, i);
    if (detections.size() > room) detections.resize(room);
  }
}

void write_rows(const std::vector<Detection>& detections, Blob& output) {
  float* row = output.data;
  for (const Detection& d : detections) {
    const float values[kRowFloats] = {static_cast<float>(d.image),
                                      static_cast<float>(d.label),
                                      d.score,
                                      d.xmin,
                                      d.ymin,
                                      d.xmax,
                                      d.ymax};
    row = std::copy(std::begin(values), std::end(values), row);
  }
  std::fill(row, output.data + output.count, 0.0F);
}

}  // namespace

std::optional<Shape> detection_output_shape(const DetectionOutputLayer& layer,
                                            std::uint32_t layout) {
  return make_shape(1, 1, std::max(layer.keep_top_k, 0), kRowFloats, layout);
}

Fit fits(const DetectionOutputLayer& layer) {
  if (layer.inputs.size() < 3) {
    return {"detection output needs locations, confidences and prior boxes"};
  }
  if (layer.num_priors < 0) return {"the number of priors is negative"};
  const std::int64_t images = layer.inputs[0]->dims[0];
  if (!holds(*layer.inputs[0], images, layer.num_priors, layer.num_loc_classes, 4)) {
    return {"num_loc_classes: there are fewer locations than priors times location classes"};
  }
  if (!holds(*layer.inputs[1], images, layer.num_priors, layer.num_classes, 1)) {
    return {"num_classes: there are fewer confidences than priors times classes"};
  }
  if (!holds(*layer.inputs[2], 1, layer.num_priors, 2, 4)) {
    return {"the prior boxes have fewer variances than boxes"};
  }
  if (layer.num_loc_classes < (layer.share_location ? 1 : classes_with_boxes(layer))) {
    return {"num_loc_classes: a class has no locations"};
  }
  return {};
}

bool DetectionOutputLayer::Forward(std::uint32_t) {
  if (!ready(*this)) return true;
  Blob& output = *last_output(*this);
  detect(*this, output.count / kRowFloats);
  write_rows(work.detections, output);
  return true;
}

void DetectionOutputLayer::AddPrimitives(cldnn_topology_impl* topology, cldnn_engine_impl* engine,
                                         std::uint32_t data_type, Aliases& aliases) {
  if (!is_wired(*this)) return;
  PrimitiveBuilder::require(fits(*this));
  PrimitiveBuilder builder(*this, topology, engine, data_type, aliases);
  const std::vector<std::string> ids{builder.planar_rows(0), builder.planar_rows(1),
                                     builder.planar_rows(2)};
  cldnn_detection_output_desc detection{};
  detection.class_count = num_classes;
  detection.keep_top_k = static_cast<std::uint32_t>(keep_top_k);
  detection.share_location = share_location;
  detection.background_label = background_label_id;
  detection.nms_threshold = nms_threshold;
  detection.top_k = top_k;
  detection.eta = eta;
  detection.code_type = static_cast<std::int32_t>(code_type) - 1;
  detection.variance_encoded_in_target = variance_encoded_in_target;
  detection.confidence_threshold =
      no_label_counts(*this) ? std::numeric_limits<float>::max() : confidence_threshold;
  const std::int64_t rows = std::int64_t{keep_top_k} * builder.shape(ids[0]).batch;
  const GpuShape table{1, 1, kRowFloats, to_size(rows), CLDNN_FORMAT_BFYX};
  builder.add(cldnn::Kind::kDetectionOutput, detection.header, ids, table);
}

}  // namespace ravu
