// The last stage of a detector: decodes boxes, keeps the best of each class, writes a table of
// rows. The one kind that computes on the host, once its inputs are there.
#include <algorithm>
#include <cmath>

#include "primitives/Plan.h"
#include "primitives/Primitive.h"
#include "runtime/Error.h"

namespace ravu::opencl {

namespace {

constexpr int64_t kRowValues = 7;

struct Box {
  float left = 0;
  float top = 0;
  float right = 0;
  float bottom = 0;
};

struct Candidate {
  float score;
  size_t prior;
};

struct Detection {
  float score;
  size_t label;
  Box box;
};

float area(const Box& box) {
  return std::max(box.right - box.left, 0.0f) * std::max(box.bottom - box.top, 0.0f);
}

float overlap(const Box& a, const Box& b) {
  const Box common = {std::max(a.left, b.left), std::max(a.top, b.top), std::min(a.right, b.right),
                      std::min(a.bottom, b.bottom)};
  const float shared = area(common);
  const float both = area(a) + area(b) - shared;
  return both > 0 ? shared / both : 0;
}

Box decode(const float* prior, const float* variance, const float* delta, int32_t code) {
  const float width = prior[2] - prior[0];
  const float height = prior[3] - prior[1];
  switch (code) {
    case CLDNN_BOX_CORNER:
      return {prior[0] + variance[0] * delta[0], prior[1] + variance[1] * delta[1],
              prior[2] + variance[2] * delta[2], prior[3] + variance[3] * delta[3]};
    case CLDNN_BOX_CENTER_SIZE: {
      const float x = (prior[0] + prior[2]) / 2 + variance[0] * delta[0] * width;
      const float y = (prior[1] + prior[3]) / 2 + variance[1] * delta[1] * height;
      const float half_width = std::exp(variance[2] * delta[2]) * width / 2;
      const float half_height = std::exp(variance[3] * delta[3]) * height / 2;
      return {x - half_width, y - half_height, x + half_width, y + half_height};
    }
    case CLDNN_BOX_CORNER_SIZE:
      return {prior[0] + variance[0] * delta[0] * width, prior[1] + variance[1] * delta[1] * height,
              prior[2] + variance[2] * delta[2] * width,
              prior[3] + variance[3] * delta[3] * height};
    default:
      return {};
  }
}

class DetectionOutput final : public Primitive {
 public:
  explicit DetectionOutput(const cldnn_detection_output_desc& desc)
      : Primitive(desc.header), desc_(desc) {
    need_inputs(*this, 3);
    desc_.header = {};  // its texts and lists are the caller's
    if (desc_.class_count == 0) refuse(id + ": there are no classes");
  }

  Tensor shape(std::span<const Tensor> in) const override {
    for (const Tensor& tensor : in) {
      if (tensor.format != CLDNN_FORMAT_BFYX) {
        refuse(id + ": there is no kernel for inputs of format " + std::to_string(tensor.format));
      }
    }
    // As a signed number, so that "all" is a table that cannot be allocated.
    const auto rows = static_cast<int64_t>(static_cast<int32_t>(desc_.keep_top_k));
    return {CLDNN_FORMAT_BFYX, 1, 1, kRowValues, times(rows, in[0].b)};
  }

  void check(std::span<const Tensor> in, const Tensor&) const override {
    const int64_t priors = in[2].y / 4;
    const Tensor wanted_priors = {CLDNN_FORMAT_BFYX, 1, 2, 1, priors * 4};
    const Tensor wanted_locations = {CLDNN_FORMAT_BFYX, in[0].b, times(priors, box_classes() * 4),
                                     1, 1};
    const Tensor wanted_scores = {CLDNN_FORMAT_BFYX, in[0].b, times(priors, desc_.class_count), 1,
                                  1};
    if (in[0] == wanted_locations && in[1] == wanted_scores && in[2] == wanted_priors) return;
    refuse(id + ": locations of " + text(in[0]) + ", confidences of " + text(in[1]) +
           " and priors of " + text(in[2]) + " (b, f, x, y) do not fit together");
  }

  void plan(Plan& plan) const override {
    const std::array<Operand, 3> in = {plan.input(0), plan.input(1), plan.input(2)};
    const Operand out = plan.output();
    plan.compute_on_host([this, in, out](Queue& queue) {
      std::array<std::vector<float>, 3> values;
      for (size_t i = 0; i < values.size(); ++i) {
        values[i].resize(static_cast<size_t>(count(in[i].tensor)));
        queue.read(*in[i].slot, values[i].data(), values[i].size() * sizeof(float));
      }
      const auto images = static_cast<size_t>(in[0].tensor.b);
      std::vector<float> table = rows(values[0], values[1], values[2], images);
      queue.write(*out.slot, table.data(), table.size() * sizeof(float));
    });
  }

 private:
  int64_t box_classes() const { return desc_.share_location != 0 ? 1 : desc_.class_count; }

  std::vector<float> rows(std::span<const float> locations, std::span<const float> scores,
                          std::span<const float> priors, size_t images) const {
    const size_t keep = desc_.keep_top_k;
    std::vector<float> table(images * keep * kRowValues, 0.0f);
    for (size_t image = 0; image < images; ++image) {
      const std::vector<Detection> found =
          detect(locations.subspan(image * locations.size() / images, locations.size() / images),
                 scores.subspan(image * scores.size() / images, scores.size() / images), priors);
      float* row = table.data() + image * keep * kRowValues;
      for (size_t i = 0; i < keep; ++i, row += kRowValues) {
        if (i < found.size()) {
          put(row, image, found[i]);
        } else {
          row[0] = -1;
        }
      }
    }
    return table;
  }

  static void put(float* row, size_t image, const Detection& detection) {
    const Box& box = detection.box;
    const float values[kRowValues] = {static_cast<float>(image),
                                      static_cast<float>(detection.label),
                                      detection.score,
                                      box.left,
                                      box.top,
                                      box.right,
                                      box.bottom};
    std::copy_n(values, kRowValues, row);
  }

  // The detections of one image, at most keep_top_k, class by class.
  std::vector<Detection> detect(std::span<const float> locations, std::span<const float> scores,
                                std::span<const float> priors) const {
    std::vector<Detection> found;
    for (size_t label = 0; label < desc_.class_count; ++label) {
      if (static_cast<int64_t>(label) == desc_.background_label) continue;
      detect_class(label, locations, scores, priors, found);
    }
    if (found.size() <= desc_.keep_top_k) return found;
    std::stable_sort(found.begin(), found.end(),
                     [](const Detection& a, const Detection& b) { return a.score > b.score; });
    found.resize(desc_.keep_top_k);
    std::stable_sort(found.begin(), found.end(),
                     [](const Detection& a, const Detection& b) { return a.label < b.label; });
    return found;
  }

  void detect_class(size_t label, std::span<const float> locations, std::span<const float> scores,
                    std::span<const float> priors, std::vector<Detection>& found) const {
    const size_t prior_count = priors.size() / 8;
    std::vector<Candidate> candidates;
    for (size_t prior = 0; prior < prior_count; ++prior) {
      const float score = scores[prior * desc_.class_count + label];
      if (score > desc_.confidence_threshold) candidates.push_back({score, prior});
    }
    std::stable_sort(candidates.begin(), candidates.end(),
                     [](const Candidate& a, const Candidate& b) { return a.score > b.score; });
    if (desc_.top_k >= 0 && candidates.size() > static_cast<size_t>(desc_.top_k)) {
      candidates.resize(static_cast<size_t>(desc_.top_k));
    }
    const size_t first_kept = found.size();
    float threshold = desc_.nms_threshold;
    for (const Candidate& candidate : candidates) {
      const Box box = box_of(candidate.prior, label, locations, priors);
      const bool covered =
          std::any_of(found.begin() + static_cast<ptrdiff_t>(first_kept), found.end(),
                      [&](const Detection& kept) { return overlap(box, kept.box) > threshold; });
      if (covered) continue;
      found.push_back({candidate.score, label, box});
      if (desc_.eta < 1 && threshold > 0.5f) threshold *= desc_.eta;
    }
  }

  Box box_of(size_t prior, size_t label, std::span<const float> locations,
             std::span<const float> priors) const {
    constexpr float kOnes[4] = {1, 1, 1, 1};
    const auto classes = static_cast<size_t>(box_classes());
    const size_t box_class = desc_.share_location != 0 ? 0 : label;
    const float* variance = desc_.variance_encoded_in_target != 0
                                ? kOnes
                                : priors.data() + priors.size() / 2 + prior * 4;
    return decode(priors.data() + prior * 4, variance,
                  locations.data() + (prior * classes + box_class) * 4, desc_.code_type);
  }

  cldnn_detection_output_desc desc_;
};

}  // namespace

std::unique_ptr<Primitive> make_detection_output(const cldnn_primitive& header) {
  return std::make_unique<DetectionOutput>(
      reinterpret_cast<const cldnn_detection_output_desc&>(header));
}

}  // namespace ravu::opencl
