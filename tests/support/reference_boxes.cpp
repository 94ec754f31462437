// Prior boxes and the detector's last stage, written out with maps and lists and no shortcut.
#include <algorithm>
#include <cmath>
#include <cstdint>
#include <map>

#include "support/reference.h"

namespace ravu::test::reference {
namespace {

std::int32_t truncate(float x) {
  const bool inside = x >= -2147483648.0F && x < 2147483648.0F;
  return inside ? static_cast<std::int32_t>(x) : INT32_MIN;
}

std::int32_t wrapped_product(std::int32_t a, std::int32_t b) {
  return static_cast<std::int32_t>(std::int64_t{a} * b);
}

struct Emitter {
  const PriorBoxes& p;
  std::vector<float>& values;
  std::size_t position = 0;

  void box(float cx, float cy, float half_w, float half_h) {
    const float width = static_cast<float>(p.image_w);
    const float height = static_cast<float>(p.image_h);
    values[position++] = (cx - half_w) / width;
    values[position++] = (cy - half_h) / height;
    values[position++] = (cx + half_w) / width;
    values[position++] = (cy + half_h) / height;
  }

  void cell(float cx, float cy) {
    for (std::size_t s = 0; s < p.min_sizes.size(); ++s) {
      const std::int32_t m = truncate(p.min_sizes[s]);
      const float side = static_cast<float>(m);
      box(cx, cy, side * 0.5F, side * 0.5F);
      if (!p.max_sizes.empty()) {
        const double area = wrapped_product(m, truncate(p.max_sizes[s]));
        const float half = static_cast<float>(std::sqrt(area)) * 0.5F;
        box(cx, cy, half, half);
      }
      for (const float ratio : p.aspect_ratios) {
        if (std::fabs(static_cast<double>(ratio) - 1.0) < 1e-6) continue;
        const float r = sqrtf(ratio);
        box(cx, cy, r * side * 0.5F, side / r * 0.5F);
      }
    }
  }
};

struct DecodedBox {
  float xmin = 0, ymin = 0, xmax = 0, ymax = 0, size = 0;
};

using Four = std::vector<float>;

DecodedBox with_size(float xmin, float ymin, float xmax, float ymax) {
  return {xmin, ymin, xmax, ymax, (xmax - xmin) * (ymax - ymin)};
}

DecodedBox decode(const Detection& d, const Four& l, const Four& b, const Four& var) {
  const float pw = b[2] - b[0];
  const float ph = b[3] - b[1];
  Four v =
      d.variance_encoded ? l : Four{var[0] * l[0], var[1] * l[1], var[2] * l[2], var[3] * l[3]};
  if (d.code_type == 1) return with_size(b[0] + v[0], b[1] + v[1], b[2] + v[2], b[3] + v[3]);
  if (d.code_type == 2) {
    const float cx = v[0] * pw + (b[0] + b[2]) * 0.5F;
    const float cy = v[1] * ph + (b[1] + b[3]) * 0.5F;
    const float w = expf(v[2]) * pw;
    const float h = expf(v[3]) * ph;
    return with_size(cx - w * 0.5F, cy - h * 0.5F, cx + w * 0.5F, cy + h * 0.5F);
  }
  if (d.code_type == 3) {
    return with_size(b[0] + v[0] * pw, b[1] + v[1] * ph, b[2] + v[2] * pw, b[3] + v[3] * ph);
  }
  return {};
}

float overlap_of(const DecodedBox& a, const DecodedBox& b) {
  if (b.xmin > a.xmax || b.xmax < a.xmin || b.ymin > a.ymax || b.ymax < a.ymin) return 0;
  const float w = std::min(a.xmax, b.xmax) - std::max(a.xmin, b.xmin);
  const float h = std::min(a.ymax, b.ymax) - std::max(a.ymin, b.ymin);
  return w > 0 && h > 0 ? w * h / (a.size + b.size - w * h) : 0;
}

struct Entry {
  float score;
  int label, prior;
};

std::vector<int> suppress(const Detection& d, const std::vector<float>& scores,
                          const std::vector<DecodedBox>& boxes) {
  std::vector<Entry> candidates;
  for (std::size_t p = 0; p < scores.size(); ++p) {
    if (scores[p] > d.confidence_threshold)
      candidates.push_back({scores[p], 0, static_cast<int>(p)});
  }
  std::stable_sort(candidates.begin(), candidates.end(),
                   [](const Entry& a, const Entry& b) { return a.score > b.score; });
  if (d.top_k >= 0 && candidates.size() > static_cast<unsigned>(d.top_k)) {
    candidates.resize(static_cast<unsigned>(d.top_k));
  }
  float threshold = d.nms_threshold;
  std::vector<int> kept;
  for (const Entry& candidate : candidates) {
    const bool dropped = std::any_of(kept.begin(), kept.end(), [&](int other) {
      return overlap_of(boxes[candidate.prior], boxes[other]) > threshold;
    });
    if (dropped) continue;
    kept.push_back(candidate.prior);
    if (d.eta < 1.0F && threshold > 0.5F) threshold *= d.eta;
  }
  return kept;
}

using Lists = std::map<int, std::vector<int>>;

void limit(const Detection& d, const std::map<int, std::vector<float>>& scores, Lists& lists) {
  std::vector<Entry> all;
  for (const auto& [label, priors] : lists) {
    for (const int p : priors) all.push_back({scores.at(label)[p], label, p});
  }
  if (d.keep_top_k < 0 || all.size() <= static_cast<unsigned>(d.keep_top_k)) return;
  // Any order among equal scores would do; the walk's order is as good as another.
  std::stable_sort(all.begin(), all.end(),
                   [](const Entry& a, const Entry& b) { return a.score > b.score; });
  all.resize(static_cast<unsigned>(d.keep_top_k));
  lists.clear();
  for (const Entry& entry : all) lists[entry.label].push_back(entry.prior);
}

}  // namespace

std::vector<float> prior_boxes(const PriorBoxes& p, int num_priors) {
  const std::size_t cells = static_cast<std::size_t>(p.map_h * p.map_w);
  const std::size_t row = cells * static_cast<std::size_t>(num_priors) * 4;
  std::vector<float> values(2 * row);
  const bool steps = p.step_h != 0 && p.step_w != 0;
  const float sx = steps ? static_cast<float>(p.step_w)
                         : static_cast<float>(p.image_w) / static_cast<float>(p.map_w);
  const float sy = steps ? static_cast<float>(p.step_h)
                         : static_cast<float>(p.image_h) / static_cast<float>(p.map_h);
  Emitter emitter{p, values};
  for (int h = 0; h < p.map_h; ++h) {
    for (int w = 0; w < p.map_w; ++w) {
      emitter.cell((static_cast<float>(w) + p.offset) * sx,
                   (static_cast<float>(h) + p.offset) * sy);
    }
  }
  for (std::size_t i = 0; i < row && p.clip; ++i) {
    values[i] = std::fmin(std::fmax(values[i], 0.0F), 1.0F);
  }
  if (p.variances.size() < 2) {
    std::fill(values.begin() + static_cast<std::ptrdiff_t>(row), values.end(), p.variances[0]);
  } else {
    for (std::size_t i = 0; i < 4 * cells; ++i) values[row + i] = p.variances[i % 4];
  }
  return values;
}

std::vector<float> detection_output(const Detection& d, const std::vector<float>& locations,
                                    const std::vector<float>& confidences,
                                    const std::vector<float>& priors, std::size_t room) {
  std::vector<float> output;
  const auto four = [](const std::vector<float>& from, int i) {
    return Four(from.begin() + i * 4, from.begin() + i * 4 + 4);
  };
  for (int image = 0; image < d.images; ++image) {
    std::map<int, std::vector<Four>> lists;
    std::map<int, std::vector<float>> scores;
    std::map<int, std::vector<DecodedBox>> decoded;
    for (int p = 0; p < d.priors; ++p) {
      for (int c = 0; c < d.loc_classes; ++c) {
        lists[d.share_location ? -1 : c].push_back(
            four(locations, (image * d.priors + p) * d.loc_classes + c));
      }
      for (int c = 0; c < d.classes; ++c) {
        scores[c].push_back(
            confidences[static_cast<std::size_t>((image * d.priors + p) * d.classes + c)]);
      }
    }
    for (int c = 0; c < d.loc_classes; ++c) {
      const int label = d.share_location ? -1 : c;
      if (label == d.background) continue;
      decoded[label].resize(static_cast<std::size_t>(d.priors));
      for (int p = 0; p < d.priors; ++p) {
        decoded[label][p] = decode(d, lists[label][p], four(priors, p), four(priors, d.priors + p));
      }
    }
    Lists kept;
    for (int c = 0; c < d.classes; ++c) {
      if (c == d.background) continue;
      const int label = d.share_location ? -1 : c;
      if (decoded.count(label) != 0) kept[c] = suppress(d, scores[c], decoded[label]);
    }
    limit(d, scores, kept);
    for (const auto& [label, list] : kept) {
      for (const int p : list) {
        const DecodedBox& box = decoded[d.share_location ? -1 : label][p];
        output.insert(output.end(), {static_cast<float>(image), static_cast<float>(label),
                                     scores[label][p], box.xmin, box.ymin, box.xmax, box.ymax});
      }
    }
  }
  output.resize(std::min(output.size(), room / 7 * 7));
  output.resize(room, 0.0F);
  return output;
}

}  // namespace ravu::test::reference
