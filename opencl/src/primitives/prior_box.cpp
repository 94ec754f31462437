// Default boxes for every pixel of a feature map. They depend on sizes alone, so they are computed
// once, when the network is allocated.
#include <algorithm>
#include <cmath>

#include "primitives/Plan.h"
#include "primitives/Primitive.h"
#include "runtime/Error.h"

namespace ravu::opencl {

namespace {

bool is_one(float ratio) {
  return std::fabs(ratio - 1) < 1e-6f;
}

class PriorBox final : public Primitive {
 public:
  explicit PriorBox(const cldnn_prior_box_desc& desc)
      : Primitive(desc.header),
        image_width_(desc.image_size.sizes[CLDNN_X]),
        image_height_(desc.image_size.sizes[CLDNN_Y]),
        mins_(floats_of(desc.min_sizes, "min size")),
        maxs_(floats_of(desc.max_sizes, "max size")),
        ratios_(floats_of(desc.aspect_ratios, "aspect ratio")),
        variances_(floats_of(desc.variances, "variance")),
        clip_(desc.clip != 0),
        step_width_(desc.step_width),
        step_height_(desc.step_height),
        offset_(desc.offset) {
    need_inputs(*this, 1);
    check_numbers();
  }

  Tensor shape(std::span<const Tensor> in) const override {
    const int64_t cells = times(in[0].x, in[0].y);
    return {CLDNN_FORMAT_BFYX, 1, 2, 1, times(cells, per_cell() * 4)};
  }

  void plan(Plan& plan) const override {
    const Tensor& grid = plan.input(0).tensor;
    cl_float2 image = {{static_cast<float>(image_width_), static_cast<float>(image_height_)}};
    cl_float2 step = {{step_width_, step_height_}};
    if (step_width_ == 0 || step_height_ == 0) {
      step.s[0] = image.s[0] / static_cast<float>(grid.x);
      step.s[1] = image.s[1] / static_cast<float>(grid.y);
    }
    const auto length = [](const std::vector<float>& list) {
      return static_cast<int64_t>(list.size());
    };
    plan.prepare(
        {"prior_box", "prior_box"},
        {plan.constants(mins_), plan.constants(maxs_), plan.constants(ratios_),
         plan.constants(variances_), plan.output().slot,
         ints(length(mins_), length(maxs_), length(ratios_), length(variances_)),
         ints(grid.x, grid.y), as_int(per_cell()), image, step, offset_, as_int(clip_ ? 1 : 0)},
        {grid.x, grid.y});
  }

 private:
  int64_t per_cell() const {
    return static_cast<int64_t>(ratios_.size() * mins_.size() + maxs_.size());
  }

  void check_numbers() const {
    if (image_width_ < 1 || image_height_ < 1) refuse(id + ": the image has no pixels");
    if (!(step_width_ >= 0) || !(step_height_ >= 0)) refuse(id + ": a step is negative");
    if (!maxs_.empty() && maxs_.size() != mins_.size()) {
      refuse(id + ": there must be as many max sizes as min sizes, or none");
    }
    for (size_t i = 0; i < mins_.size(); ++i) {
      if (!(mins_[i] > 0)) refuse(id + ": a min size is not positive");
      if (!maxs_.empty() && !(maxs_[i] > mins_[i])) {
        refuse(id + ": a max size is not greater than its min size");
      }
    }
    if (variances_.size() != 1 && variances_.size() != 4) {
      refuse(id + ": there must be one variance or four");
    }
    for (float variance : variances_) {
      if (!(variance > 0)) refuse(id + ": a variance is not positive");
    }
    // Every ratio but 1 makes a box of its own; 1 stands for the square one.
    if (per_cell() > 0 && std::count_if(ratios_.begin(), ratios_.end(), is_one) != 1) {
      refuse(id + ": the aspect ratios must hold 1 exactly once");
    }
  }

  int32_t image_width_;
  int32_t image_height_;
  std::vector<float> mins_;
  std::vector<float> maxs_;
  std::vector<float> ratios_;
  std::vector<float> variances_;
  bool clip_;
  float step_width_;
  float step_height_;
  float offset_;
};

}  // namespace

std::unique_ptr<Primitive> make_prior_box(const cldnn_primitive& header) {
  return std::make_unique<PriorBox>(reinterpret_cast<const cldnn_prior_box_desc&>(header));
}

}  // namespace ravu::opencl
