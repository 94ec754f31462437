// Suppression on every instruction set: the same survivors as a plain walk.
#include <gtest/gtest.h>

#include <algorithm>
#include <limits>

#include "kernels/kernels.h"
#include "support/ModelBuilder.h"
#include "support/targets.h"

namespace ravu::test {
namespace {

bool overlap_more(const kernels::Box& a, const kernels::Box& b, float threshold) {
  float overlap = 0;
  if (!(b.xmin > a.xmax || b.xmax < a.xmin || b.ymin > a.ymax || b.ymax < a.ymin)) {
    const float w = std::min(a.xmax, b.xmax) - std::max(a.xmin, b.xmin);
    const float h = std::min(a.ymax, b.ymax) - std::max(a.ymin, b.ymin);
    if (w > 0 && h > 0) overlap = w * h / (a.size + b.size - w * h);
  }
  return overlap > threshold;
}

std::vector<std::uint32_t> walk(const std::vector<kernels::Box>& boxes, float threshold,
                                float eta) {
  std::vector<std::uint32_t> kept;
  for (std::uint32_t i = 0; i < boxes.size(); ++i) {
    const bool dropped = std::any_of(kept.begin(), kept.end(), [&](std::uint32_t k) {
      return overlap_more(boxes[i], boxes[k], threshold);
    });
    if (dropped) continue;
    kept.push_back(i);
    if (eta < 1.0F && threshold > 0.5F) threshold *= eta;
  }
  return kept;
}

TEST(SuppressKernel, KeepsTheSameBoxesOnEveryProcessor) {
  for_each_target([] {
    for (const std::size_t n : {0U, 1U, 2U, 15U, 16U, 17U, 33U, 200U}) {
      auto values = random_values(n * 5, 3);
      if (n > 15) values[7] = values[26] = std::numeric_limits<float>::quiet_NaN();
      for (const float threshold : {-0.1F, 0.0F, 0.1F, 0.5F, 0.9F}) {
        std::vector<kernels::Box> boxes;
        std::vector<float> columns(5 * (n + kernels::kBoxPadding), 0.0F);
        float* column[5];
        for (std::size_t k = 0; k < 5; ++k) {
          column[k] = columns.data() + k * (n + kernels::kBoxPadding);
        }
        for (std::size_t i = 0; i < n; ++i) {
          const float* v = &values[i * 5];
          boxes.push_back({v[0], v[1], v[0] + 0.6F, v[1] + v[2], 0.6F * v[2]});
          column[0][i] = boxes[i].xmin;
          column[1][i] = boxes[i].ymin;
          column[2][i] = boxes[i].xmax;
          column[3][i] = boxes[i].ymax;
          column[4][i] = boxes[i].size;
        }
        std::vector<std::uint32_t> survivors(n);
        survivors.resize(kernels::suppress({column[0], column[1], column[2], column[3], column[4]},
                                           n, threshold, 0.9F, survivors.data()));
        const auto expected = walk(boxes, threshold, 0.9F);
        EXPECT_EQ(survivors, expected) << n << " " << threshold;
        for (std::size_t i = 0; i < expected.size() && i < survivors.size(); ++i) {
          const kernels::Box& kept = boxes[expected[i]];
          EXPECT_TRUE(column[0][i] == kept.xmin || kept.xmin != kept.xmin);
          EXPECT_TRUE(column[4][i] == kept.size || kept.size != kept.size);
        }
      }
    }
  });
}

}  // namespace
}  // namespace ravu::test
