// Boxes of a detector: priors, decoding, and suppression of overlapping boxes, which compares each
// candidate with a vector of kept boxes at a time.
#include <cmath>

#include "kernels/kernels.h"

#undef HWY_TARGET_INCLUDE
#define HWY_TARGET_INCLUDE "kernels/boxes.cpp"
#include <hwy/foreach_target.h>
#include <hwy/highway.h>

HWY_BEFORE_NAMESPACE();
namespace ravu::kernels::HWY_NAMESPACE {
namespace {

namespace hn = hwy::HWY_NAMESPACE;

// Whether one of the first n boxes overlaps `box` by more than the threshold. Overlap is
// intersection over union, 0 for boxes that only touch.
bool overlaps_any(const BoxColumns& boxes, std::size_t n, const Box& box, float threshold) {
  const hn::CappedTag<float, kBoxPadding> d;
  const auto xmin = hn::Set(d, box.xmin);
  const auto ymin = hn::Set(d, box.ymin);
  const auto xmax = hn::Set(d, box.xmax);
  const auto ymax = hn::Set(d, box.ymax);
  const auto larger = [](auto a, auto b) { return hn::IfThenElse(hn::Lt(a, b), b, a); };
  const auto smaller = [](auto a, auto b) { return hn::IfThenElse(hn::Lt(b, a), b, a); };
  for (std::size_t k = 0; k < n; k += hn::Lanes(d)) {
    const auto other_xmin = hn::LoadU(d, boxes.xmin + k);
    const auto other_ymin = hn::LoadU(d, boxes.ymin + k);
    const auto other_xmax = hn::LoadU(d, boxes.xmax + k);
    const auto other_ymax = hn::LoadU(d, boxes.ymax + k);
    const auto apart = hn::Or(hn::Or(hn::Gt(other_xmin, xmax), hn::Lt(other_xmax, xmin)),
                              hn::Or(hn::Gt(other_ymin, ymax), hn::Lt(other_ymax, ymin)));
    const auto width = hn::Sub(smaller(xmax, other_xmax), larger(xmin, other_xmin));
    const auto height = hn::Sub(smaller(ymax, other_ymax), larger(ymin, other_ymin));
    const auto solid = hn::And(hn::Gt(width, hn::Zero(d)), hn::Gt(height, hn::Zero(d)));
    const auto common = hn::Mul(width, height);
    const auto both = hn::Add(hn::Set(d, box.size), hn::LoadU(d, boxes.size + k));
    const auto overlap =
        hn::IfThenElseZero(hn::AndNot(apart, solid), hn::Div(common, hn::Sub(both, common)));
    const auto over = hn::Gt(overlap, hn::Set(d, threshold));
    if (!hn::AllFalse(d, hn::And(over, hn::FirstN(d, n - k)))) return true;
  }
  return false;
}

std::size_t suppress(const BoxColumns& boxes, std::size_t n, float threshold, float eta,
                     std::uint32_t* survivors) {
  std::size_t kept = 0;
  for (std::size_t i = 0; i < n; ++i) {
    const Box box{boxes.xmin[i], boxes.ymin[i], boxes.xmax[i], boxes.ymax[i], boxes.size[i]};
    if (overlaps_any(boxes, kept, box, threshold)) continue;
    boxes.xmin[kept] = box.xmin;
    boxes.ymin[kept] = box.ymin;
    boxes.xmax[kept] = box.xmax;
    boxes.ymax[kept] = box.ymax;
    boxes.size[kept] = box.size;
    survivors[kept++] = static_cast<std::uint32_t>(i);
    if (eta < 1.0F && threshold > 0.5F) threshold *= eta;
  }
  return kept;
}

}  // namespace
}  // namespace ravu::kernels::HWY_NAMESPACE
HWY_AFTER_NAMESPACE();

#if HWY_ONCE
namespace ravu::kernels {

HWY_EXPORT(suppress);

namespace {

Box make_box(float xmin, float ymin, float xmax, float ymax) {
  return {xmin, ymin, xmax, ymax, (xmax - xmin) * (ymax - ymin)};
}

Box decode_centre_size(const float* l, const float* b, const float* v) {
  const float width = b[2] - b[0];
  const float height = b[3] - b[1];
  const float x = v[0] * l[0] * width + (b[0] + b[2]) * 0.5F;
  const float y = v[1] * l[1] * height + (b[1] + b[3]) * 0.5F;
  const float half_width = std::exp(v[2] * l[2]) * width * 0.5F;
  const float half_height = std::exp(v[3] * l[3]) * height * 0.5F;
  return make_box(x - half_width, y - half_height, x + half_width, y + half_height);
}

}  // namespace

void prior_boxes(const PriorGrid& g, const HalfSides* boxes, std::size_t n, float* output) {
  for (std::size_t row = 0; row < g.rows; ++row) {
    const float y = (static_cast<float>(row) + g.offset) * g.step_y;
    for (std::size_t column = 0; column < g.columns; ++column) {
      const float x = (static_cast<float>(column) + g.offset) * g.step_x;
      for (std::size_t i = 0; i < n; ++i, output += 4) {
        output[0] = (x - boxes[i].width) / g.image_width;
        output[1] = (y - boxes[i].height) / g.image_height;
        output[2] = (x + boxes[i].width) / g.image_width;
        output[3] = (y + boxes[i].height) / g.image_height;
      }
    }
  }
}

void clip_to_one(float* values, std::size_t n) {
  for (std::size_t i = 0; i < n; ++i) {
    const float positive = values[i] > 0.0F ? values[i] : 0.0F;
    values[i] = positive < 1.0F ? positive : 1.0F;
  }
}

Box decode_box(std::uint32_t code_type, const float* l, const float* b, const float* variances) {
  static constexpr float kOnes[] = {1.0F, 1.0F, 1.0F, 1.0F};
  const float* v = variances == nullptr ? kOnes : variances;
  const float width = b[2] - b[0];
  const float height = b[3] - b[1];
  switch (code_type) {
    case kCornerBox:
      return make_box(b[0] + v[0] * l[0], b[1] + v[1] * l[1], b[2] + v[2] * l[2],
                      b[3] + v[3] * l[3]);
    case kCentreSizeBox:
      return decode_centre_size(l, b, v);
    case kCornerSizeBox:
      return make_box(b[0] + v[0] * l[0] * width, b[1] + v[1] * l[1] * height,
                      b[2] + v[2] * l[2] * width, b[3] + v[3] * l[3] * height);
    default:
      return {};
  }
}

std::size_t suppress(const BoxColumns& boxes, std::size_t n, float threshold, float eta,
                     std::uint32_t* survivors) {
  return HWY_DYNAMIC_DISPATCH(suppress)(boxes, n, threshold, eta, survivors);
}

}  // namespace ravu::kernels
#endif
