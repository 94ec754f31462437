// Record "normalize": keys, defaults, what is refused.
#include <gtest/gtest.h>

#include "layers/LrnLayer.h"
#include "support/blobs.h"

namespace ravu::test {
namespace {

Dictionary lrn_record() {
  return layer("normalize", {"data"}, {"normalised"});
}

TEST(LrnRecord, ReadsEveryKey) {
  const auto loaded = load_layer(
      lrn_record().add("size", 5).add("alpha", 1e-4F).add("beta", 0.75F).add("k", 2.0F), 4, 3,
      /*batch=*/2);
  const auto* lrn = dynamic_cast<LrnLayer*>(loaded.layer);
  ASSERT_NE(lrn, nullptr);
  EXPECT_EQ(lrn->type, 9U);
  EXPECT_EQ(lrn->size, 5U);
  EXPECT_EQ(lrn->alpha, 1e-4F);
  EXPECT_EQ(lrn->beta, 0.75F);
  EXPECT_EQ(lrn->k, 2.0F);
  EXPECT_EQ(lrn->outputs.back()->dims, (Dims{2, 4, 4, 3}));
}

TEST(LrnRecord, AlphaBetaAndKAreZeroWhenAbsent) {
  const auto loaded = load_layer(lrn_record().add("size", 5), 4, 3);
  const auto* lrn = dynamic_cast<LrnLayer*>(loaded.layer);
  ASSERT_NE(lrn, nullptr);
  EXPECT_EQ(lrn->alpha, 0.0F);
  EXPECT_EQ(lrn->beta, 0.0F);
  EXPECT_EQ(lrn->k, 0.0F);
}

TEST(LrnRecord, TheBytesOfTheSizeAreAnIntegerWhateverTheElementSays) {
  const auto loaded = load_layer(lrn_record().add("size", 1.0F), 4, 3);
  const auto* lrn = dynamic_cast<LrnLayer*>(loaded.layer);
  ASSERT_NE(lrn, nullptr);
  EXPECT_EQ(lrn->size, 0x3F800000U);
}

TEST(LrnRecord, ANegativeSizeIsAnEnormousWindowAndRuns) {
  const auto loaded = load_layer(lrn_record().add("size", -1), 4, 3);
  const auto* lrn = dynamic_cast<LrnLayer*>(loaded.layer);
  ASSERT_NE(lrn, nullptr);
  EXPECT_EQ(lrn->size, 0xFFFFFFFFU);
}

TEST(LrnRecord, AMissingSizeIsNamedInTheReason) {
  EXPECT_EQ(load_layer(lrn_record(), 4, 3).reason, "layer 0 (normalize): size: the key is missing");
}

TEST(LrnRecord, ASizeOfZeroIsRefused) {
  EXPECT_EQ(load_layer(lrn_record().add("size", 0), 4, 3).reason,
            "layer 0 (normalize): size must be at least 1");
}

TEST(LrnRecord, ALayerWithoutInputIsRefused) {
  testing::internal::CaptureStdout();
  const auto loaded = load_layer(layer("normalize", {"nothing"}, {"out"}).add("size", 5), 4, 3);
  EXPECT_EQ(testing::internal::GetCapturedStdout(),
            "[WARNING]\tLRN still not hit nothing. TODO need to do something\n");
  EXPECT_FALSE(loaded.network);
}

}  // namespace
}  // namespace ravu::test
