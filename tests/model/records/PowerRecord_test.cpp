// Record "power": three optional keys.
#include <gtest/gtest.h>

#include "layers/PowerLayer.h"
#include "support/blobs.h"

namespace ravu::test {
namespace {

TEST(PowerRecord, ReadsEveryKey) {
  const auto record =
      layer("power", {"data"}, {"out"}).add("power", 2.0F).add("scale", 0.25F).add("shift", -1.0F);
  const auto loaded = load_layer(record, 4, 3, /*batch=*/2);
  const auto* power = dynamic_cast<PowerLayer*>(loaded.layer);
  ASSERT_NE(power, nullptr) << loaded.reason;
  EXPECT_EQ(power->type, 11U);
  EXPECT_EQ(power->power, 2.0F);
  EXPECT_EQ(power->scale, 0.25F);
  EXPECT_EQ(power->shift, -1.0F);
  EXPECT_EQ(power->power_times_scale, 0.5F);
  EXPECT_EQ(power->outputs.back()->dims, (Dims{2, 4, 4, 3}));
}

TEST(PowerRecord, AnAbsentPowerOrScaleIsZeroAndNotOne) {
  const auto loaded = load_layer(layer("power", {"data"}, {"out"}).add("shift", 3.0F), 4, 3);
  const auto* power = dynamic_cast<PowerLayer*>(loaded.layer);
  ASSERT_NE(power, nullptr) << loaded.reason;
  EXPECT_EQ(power->power, 0.0F);
  EXPECT_EQ(power->scale, 0.0F);
  EXPECT_EQ(power->shift, 3.0F);
  EXPECT_EQ(power->power_times_scale, 0.0F);
}

TEST(PowerRecord, ALayerWithOnlyAPowerMultipliesByZeroFirst) {
  // In place, so that the steps compose: 0 to the power of 1, which is left out.
  const auto loaded = load_layer(layer("power", {"data"}, {"data"}).add("power", 1.0F), 1, 2);
  ASSERT_NE(loaded.layer, nullptr) << loaded.reason;
  assign(*loaded.network->input, std::vector<float>{3, 4}.data());
  loaded.layer->Setup(0, loaded.network->params);
  loaded.layer->Forward(0);
  EXPECT_EQ(values_of(*loaded.network->input), (std::vector<float>{0, 0}));
}

TEST(PowerRecord, AValueOfTooFewBytesIsRefused) {
  const auto record = layer("power", {"data"}, {"out"}).add("shift", element(2, {1, 2}));
  EXPECT_EQ(load_layer(record, 2, 3).reason, "layer 0 (power): shift: the value is too short");
}

TEST(PowerRecord, AnUnresolvedInputWarnsWithTheClassAndIsRefused) {
  testing::internal::CaptureStdout();
  EXPECT_FALSE(load_layer(layer("power", {"nowhere"}, {"out"}), 4, 1).network);
  EXPECT_EQ(testing::internal::GetCapturedStdout(),
            "[WARNING]\tPower still not hit nowhere. TODO need to do something\n");
}

}  // namespace
}  // namespace ravu::test
