// The primitives of prior boxes and detection output, and what stands before them.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "fakes/Built.h"
#include "support/records.h"

namespace ravu::test {
namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;

TEST(GpuPriorBox, TakesTheFeatureMapAndTheImagesSize) {
  ModelBuilder model(4, 2);
  model.add_layer(pool_record("data", "m", "max", 2, 2));
  model.add_layer(prior_record({"m", "data"}, "p",
                               {.min_sizes = {2.5F},
                                .max_sizes = {4},
                                .ratios = {2, 1, 0.5F},
                                .variances = {0.1F, 0.1F, 0.2F, 0.2F},
                                .num_priors = 4,
                                .step_h = 3,
                                .step_w = 2,
                                .clip = true}));
  EXPECT_EQ(Built(model).primitives().back(),
            "prior_box p <- m: image 4x4x4x4 min [ 2.5 ] max [ 4 ] ratios [ 1 2 0.5 ] clip "
            "variances [ 0.1 0.1 0.2 0.2 ] step_w 2 step_h 3 offset 0.5");
}

TEST(GpuPriorBox, PassesTheGivenImageSideBySide) {
  ModelBuilder model(4, 2);
  model.add_layer(prior_record({"data", "data"}, "p", {.img_h = 30, .img_w = 40}));
  EXPECT_THAT(Built(model).primitives(), ElementsAre(HasSubstr("image 30x30x40x30")));
}

TEST(GpuPriorBox, AddsReciprocalsOnlyWhereTheNumberOfPriorsCountsThem) {
  ModelBuilder listed(4, 2);
  listed.add_layer(
      prior_record({"data", "data"}, "p", {.ratios = {2, 3, 0.5F}, .num_priors = 4, .flip = true}));
  EXPECT_THAT(Built(listed).primitives(), ElementsAre(HasSubstr("ratios [ 1 2 3 0.5 ] flip")));
  ModelBuilder counted(4, 2);
  counted.add_layer(
      prior_record({"data", "data"}, "p", {.ratios = {2}, .num_priors = 3, .flip = true}));
  EXPECT_THAT(Built(counted).primitives(), ElementsAre(HasSubstr("ratios [ 1 2 0.5 ] flip")));
}

ModelBuilder detector(int share_background) {
  ModelBuilder model(2, 4);
  model.add_layer(reshape_record("data", "scores", {-1, 1, 8, 2}));
  model.add_layer(prior_record({"data", "data"}, "p", {}));
  model.add_layer(detection_record({"data", "scores", "p"}, "d", {.background = share_background}));
  return model;
}

TEST(GpuDetectionOutput, GetsLocationsAndConfidencesAsPlanarRows) {
  const Texts primitives = Built(detector(0), 2).primitives();
  EXPECT_THAT(
      Texts(primitives.begin() + 2, primitives.end()),
      ElementsAre("reshape data_reshape <- data: to 2x16x1x1",
                  "reorder data_reorder <- data_reshape: format 2",
                  "reshape scores_reshape <- scores: to 2x16x1x1",
                  "reorder scores_reorder <- scores_reshape: format 2",
                  "detection_output d <- data_reorder scores_reorder p: classes 2 keep 5 shared "
                  "background 0 nms 0.45 top 10 eta 1 code 1 threshold 0.1"));
}

TEST(GpuDetectionOutput, ABackgroundThatIsTheSharedLabelLeavesAllOut) {
  EXPECT_THAT(Built(detector(-1)).primitives().back(), HasSubstr("threshold 3.40282e+38"));
}

}  // namespace
}  // namespace ravu::test
