// Record "prelu": keys, output shape, refusals.
#include <gtest/gtest.h>

#include "layers/PReluLayer.h"
#include "support/blobs.h"

namespace ravu::test {
namespace {

Dictionary prelu_record(int channel_shared, const std::vector<float>& slopes) {
  return layer("prelu", {"data"}, {"out"})
      .add("channel_shared", channel_shared)
      .add("filler", tensor({static_cast<std::int32_t>(slopes.size())}, slopes));
}

TEST(PReluRecord, ReadsEveryKey) {
  for (const int shared : {0, 1, 2, -1}) {
    const auto loaded = load_layer(prelu_record(shared, {0.5F, 1, 2}), 4, 3, /*batch=*/2);
    const auto* prelu = dynamic_cast<PReluLayer*>(loaded.layer);
    ASSERT_NE(prelu, nullptr) << loaded.reason;
    EXPECT_EQ(prelu->type, 12U);
    EXPECT_EQ(prelu->channel_shared, shared != 0);
    EXPECT_EQ(values_of(*prelu->slopes), (std::vector<float>{0.5F, 1, 2}));
    EXPECT_EQ(prelu->outputs.back()->dims, (Dims{2, 4, 4, 3}));
  }
}

TEST(PReluRecord, TheSlopesAreNeverQuantised) {
  ModelBuilder model(2, 3);
  model.set("need_quant", integer(1)).add_layer(prelu_record(0, {0.5F, 1, 2}));
  const auto result = load(model);
  ASSERT_TRUE(result.network) << result.reason;
  const auto& prelu = dynamic_cast<PReluLayer&>(*result.network->layers.back());
  EXPECT_EQ(values_of(*prelu.slopes), (std::vector<float>{0.5F, 1, 2}));
}

TEST(PReluRecord, AMissingKeyIsNamedInTheReason) {
  const auto without_flag = layer("prelu", {"data"}, {"out"}).add("filler", tensor({1}, {1}));
  EXPECT_EQ(load_layer(without_flag, 2, 1).reason,
            "layer 0 (prelu): channel_shared: the key is missing");
  const auto without_slopes = layer("prelu", {"data"}, {"out"}).add("channel_shared", 0);
  EXPECT_EQ(load_layer(without_slopes, 2, 1).reason, "layer 0 (prelu): filler: the key is missing");
}

TEST(PReluRecord, FewerSlopesThanChannelsAreRefused) {
  EXPECT_EQ(load_layer(prelu_record(1, {0.5F}), 4, 3).reason,
            "layer 0 (prelu): filler: the tensor holds fewer slopes than the input has channels");
}

TEST(PReluRecord, AnUnresolvedInputWarnsWithTheClassAndIsRefused) {
  testing::internal::CaptureStdout();
  const auto record =
      layer("prelu", {"nowhere"}, {"out"}).add("channel_shared", 0).add("filler", tensor({1}, {1}));
  EXPECT_FALSE(load_layer(record, 4, 1).network);
  EXPECT_EQ(testing::internal::GetCapturedStdout(),
            "[WARNING]\tPReLU still not hit nowhere. TODO need to do something\n");
}

}  // namespace
}  // namespace ravu::test
