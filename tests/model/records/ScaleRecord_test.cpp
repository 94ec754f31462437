// Record "scale": keys, output shape, refusals.
#include <gtest/gtest.h>

#include "layers/ScaleLayer.h"
#include "support/blobs.h"

namespace ravu::test {
namespace {

Dictionary scale_record(int has_bias, const std::vector<float>& scales) {
  return layer("scale", {"data"}, {"out"})
      .add("has_bias", has_bias)
      .add("scales", tensor({1, 1, 1, static_cast<std::int32_t>(scales.size())}, scales));
}

TEST(ScaleRecord, ReadsEveryKey) {
  const auto record = scale_record(1, {1, 2, 3}).add("bias", tensor({1, 1, 1, 3}, {4, 5, 6}));
  const auto loaded = load_layer(record, 4, 3, /*batch=*/2);
  const auto* scale = dynamic_cast<ScaleLayer*>(loaded.layer);
  ASSERT_NE(scale, nullptr) << loaded.reason;
  EXPECT_EQ(scale->type, 4U);
  EXPECT_TRUE(scale->has_bias);
  EXPECT_EQ(values_of(*scale->scales), (std::vector<float>{1, 2, 3}));
  EXPECT_EQ(values_of(*scale->bias), (std::vector<float>{4, 5, 6}));
  EXPECT_EQ(scale->outputs.back()->dims, (Dims{2, 4, 4, 3}));
}

TEST(ScaleRecord, WithoutTheFlagABiasIsNotRead) {
  const auto loaded = load_layer(scale_record(0, {1}).add("bias", tensor({1}, {4})), 4, 1);
  const auto* scale = dynamic_cast<ScaleLayer*>(loaded.layer);
  ASSERT_NE(scale, nullptr) << loaded.reason;
  EXPECT_FALSE(scale->has_bias);
  EXPECT_EQ(scale->bias, nullptr);
}

TEST(ScaleRecord, TheTensorsGetTheNetworksLayoutAndAreNeverQuantised) {
  ModelBuilder model(2, 3);
  model.set("layout", text("BCHW")).set("need_quant", integer(1));
  const auto record = scale_record(1, {1, 2, 3}).add("bias", tensor({1, 1, 1, 3}, {4, 5, 6}));
  const auto result = load(model.add_layer(record));
  ASSERT_TRUE(result.network) << result.reason;
  const auto& scale = dynamic_cast<ScaleLayer&>(*result.network->layers.back());
  EXPECT_EQ(scale.scales->layout, kPlanar);
  EXPECT_EQ(scale.bias->layout, kPlanar);
  EXPECT_EQ(values_of(*scale.bias), (std::vector<float>{4, 5, 6}));
}

TEST(ScaleRecord, AMissingKeyIsNamedInTheReason) {
  EXPECT_EQ(load_layer(scale_record(1, {1}), 2, 1).reason,
            "layer 0 (scale): bias: the key is missing");
  EXPECT_EQ(load_layer(layer("scale", {"data"}, {"out"}).add("has_bias", 0), 2, 1).reason,
            "layer 0 (scale): scales: the key is missing");
  const auto without_flag = layer("scale", {"data"}, {"out"}).add("scales", tensor({1}, {1}));
  EXPECT_EQ(load_layer(without_flag, 2, 1).reason, "layer 0 (scale): has_bias: the key is missing");
}

TEST(ScaleRecord, EmptyTensorsAreRefused) {
  EXPECT_EQ(load_layer(scale_record(0, {}), 2, 1).reason,
            "layer 0 (scale): scales: the tensor holds no value");
  EXPECT_EQ(load_layer(scale_record(1, {1}).add("bias", tensor({0}, {})), 2, 1).reason,
            "layer 0 (scale): bias: the tensor holds no value");
}

TEST(ScaleRecord, AnUnresolvedInputWarnsWithTheClassAndIsRefused) {
  testing::internal::CaptureStdout();
  const auto record =
      layer("scale", {"nowhere"}, {"out"}).add("has_bias", 0).add("scales", tensor({1}, {1}));
  EXPECT_FALSE(load_layer(record, 4, 1).network);
  EXPECT_EQ(testing::internal::GetCapturedStdout(),
            "[WARNING]\tScale still not hit nowhere. TODO need to do something\n");
}

}  // namespace
}  // namespace ravu::test
