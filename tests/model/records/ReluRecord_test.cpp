// Records "relu" and "max": little to read.
#include <gtest/gtest.h>

#include "layers/ReluLayer.h"
#include "layers/SoftmaxLayer.h"
#include "support/blobs.h"

namespace ravu::test {
namespace {

TEST(ReluRecord, ReadsTheSlope) {
  const auto loaded =
      load_layer(layer("relu", {"data"}, {"out"}).add("negative_slope", 0.25F), 2, 3);
  const auto* relu = dynamic_cast<ReluLayer*>(loaded.layer);
  ASSERT_NE(relu, nullptr) << loaded.reason;
  EXPECT_EQ(relu->type, 13U);
  EXPECT_EQ(relu->negative_slope, 0.25F);
  EXPECT_EQ(relu->outputs.back()->dims, (Dims{1, 2, 2, 3}));
}

TEST(ReluRecord, TheSlopeIsZeroWhenAbsent) {
  const auto loaded = load_layer(layer("relu", {"data"}, {"out"}), 2, 3);
  const auto* relu = dynamic_cast<ReluLayer*>(loaded.layer);
  ASSERT_NE(relu, nullptr) << loaded.reason;
  EXPECT_EQ(relu->negative_slope, 0.0F);
}

TEST(ReluRecord, ASlopeOfTooFewBytesIsRefused) {
  const auto loaded =
      load_layer(layer("relu", {"data"}, {"out"}).add("negative_slope", element(2, {1, 2})), 2, 3);
  EXPECT_EQ(loaded.reason, "layer 0 (relu): negative_slope: the value is too short");
}

TEST(SoftmaxRecord, TheClassMaxIsSoftmax) {
  const auto loaded = load_layer(layer("max", {"data"}, {"out"}), 2, 3);
  const auto* softmax = dynamic_cast<SoftmaxLayer*>(loaded.layer);
  ASSERT_NE(softmax, nullptr) << loaded.reason;
  EXPECT_EQ(softmax->type, 14U);
  EXPECT_EQ(softmax->outputs.back()->dims, (Dims{1, 2, 2, 3}));
}

}  // namespace
}  // namespace ravu::test
