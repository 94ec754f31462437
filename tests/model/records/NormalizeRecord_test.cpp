// Record "norm": keys and what is refused.
#include <gtest/gtest.h>

#include "layers/NormalizeLayer.h"
#include "support/blobs.h"

namespace ravu::test {
namespace {

Dictionary norm_record(int across_spatial, int channel_shared, const std::vector<float>& scale) {
  return layer("norm", {"data"}, {"normalised"})
      .add("across_spatial", across_spatial)
      .add("channel_shared", channel_shared)
      .add("scale", tensor({static_cast<std::int32_t>(scale.size()), 1, 1, 1}, scale));
}

TEST(NormalizeRecord, ReadsEveryKey) {
  const auto loaded = load_layer(norm_record(0, 0, {1, 2, 3}), 4, 3, /*batch=*/2);
  const auto* norm = dynamic_cast<NormalizeLayer*>(loaded.layer);
  ASSERT_NE(norm, nullptr);
  EXPECT_EQ(norm->type, 15U);
  EXPECT_FALSE(norm->across_spatial);
  EXPECT_FALSE(norm->channel_shared);
  EXPECT_EQ(values_of(*norm->scale), (std::vector<float>{1, 2, 3}));
  EXPECT_EQ(norm->epsilon, 0.0F);
  EXPECT_EQ(norm->outputs.back()->dims, (Dims{2, 4, 4, 3}));
}

TEST(NormalizeRecord, AnyFlagButZeroIsTrue) {
  const auto loaded = load_layer(norm_record(-1, 2, {20}), 4, 3);
  const auto* norm = dynamic_cast<NormalizeLayer*>(loaded.layer);
  ASSERT_NE(norm, nullptr);
  EXPECT_TRUE(norm->across_spatial);
  EXPECT_TRUE(norm->channel_shared);
}

TEST(NormalizeRecord, TheScaleIsNeverStoredQuantised) {
  const auto model =
      ModelBuilder(4, 3).set("need_quant", integer(1)).add_layer(norm_record(0, 0, {1, 2, 3}));
  const auto result = load(model);
  ASSERT_TRUE(result.network);
  const auto* norm = dynamic_cast<NormalizeLayer*>(result.network->layers.back().get());
  ASSERT_NE(norm, nullptr);
  EXPECT_EQ(values_of(*norm->scale), (std::vector<float>{1, 2, 3}));
}

TEST(NormalizeRecord, MissingKeysAreNamedInTheReason) {
  auto record = layer("norm", {"data"}, {"normalised"});
  EXPECT_EQ(load_layer(record, 4, 3).reason, "layer 0 (norm): across_spatial: the key is missing");
  record.add("across_spatial", 0);
  EXPECT_EQ(load_layer(record, 4, 3).reason, "layer 0 (norm): channel_shared: the key is missing");
  record.add("channel_shared", 0);
  EXPECT_EQ(load_layer(record, 4, 3).reason, "layer 0 (norm): scale: the key is missing");
}

TEST(NormalizeRecord, AScaleWithFewerValuesThanChannelsIsRefused) {
  EXPECT_EQ(load_layer(norm_record(0, 0, {1, 2}), 4, 3).reason,
            "layer 0 (norm): scale: the tensor holds fewer values than the input has channels");
}

}  // namespace
}  // namespace ravu::test
