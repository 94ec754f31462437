// Record "pool": keys, defaults, the output shape, and what is refused.
#include <gtest/gtest.h>

#include "layers/PoolingLayer.h"
#include "support/blobs.h"

namespace ravu::test {
namespace {

Dictionary pool_record(const char* mode) {
  return layer("pool", {"data"}, {"pooled"}).add("psize", 3).add("stride", 2).add("mode", mode);
}

TEST(PoolingRecord, ReadsEveryKey) {
  const auto loaded =
      load_layer(pool_record("max").add("paddingW", 1).add("paddingH", 2), 8, 3, /*batch=*/2);
  const auto* pool = dynamic_cast<PoolingLayer*>(loaded.layer);
  ASSERT_NE(pool, nullptr);
  EXPECT_EQ(pool->type, 10U);
  EXPECT_EQ(pool->kernel_h, 3U);
  EXPECT_EQ(pool->kernel_w, 3U);
  EXPECT_EQ(pool->stride_h, 2U);
  EXPECT_EQ(pool->stride_w, 2U);
  EXPECT_EQ(pool->pad_w, 1U);
  EXPECT_EQ(pool->pad_h, 2U);
  EXPECT_EQ(pool->mode, PoolingLayer::kMax);
  EXPECT_EQ(pool->outputs.back()->dims, (Dims{2, 6, 5, 3}));
}

TEST(PoolingRecord, PaddingIsZeroWhenAbsent) {
  const auto loaded = load_layer(pool_record("max"), 8, 3);
  const auto* pool = dynamic_cast<PoolingLayer*>(loaded.layer);
  ASSERT_NE(pool, nullptr);
  EXPECT_EQ(pool->pad_w, 0U);
  EXPECT_EQ(pool->pad_h, 0U);
}

TEST(PoolingRecord, OnlyExactlyMaxSelectsMaxPooling) {
  for (const char* mode : {"avg", "MAX", "maximum", ""}) {
    const auto loaded = load_layer(pool_record(mode), 8, 3);
    const auto* pool = dynamic_cast<PoolingLayer*>(loaded.layer);
    ASSERT_NE(pool, nullptr);
    EXPECT_EQ(pool->mode, PoolingLayer::kAverage) << mode;
  }
}

TEST(PoolingRecord, AMissingKeyIsNamedInTheReason) {
  const auto record = layer("pool", {"data"}, {"pooled"}).add("psize", 3).add("mode", "max");
  EXPECT_EQ(load_layer(record, 8, 3).reason, "layer 0 (pool): stride: the key is missing");
}

TEST(PoolingRecord, AStrideOfZeroIsRefused) {
  const auto record =
      layer("pool", {"data"}, {"pooled"}).add("psize", 3).add("stride", 0).add("mode", "max");
  EXPECT_FALSE(load_layer(record, 8, 3).network);
}

}  // namespace
}  // namespace ravu::test
