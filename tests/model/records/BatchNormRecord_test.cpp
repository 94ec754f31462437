// Record "bn": keys, defaults, output shape, refusals.
#include <gtest/gtest.h>

#include "layers/BatchNormLayer.h"
#include "support/blobs.h"

namespace ravu::test {
namespace {

Dictionary bn_record(const std::vector<float>& mean, const std::vector<float>& var) {
  return layer("bn", {"data"}, {"out"})
      .add("mean", tensor({1, 1, 1, static_cast<std::int32_t>(mean.size())}, mean))
      .add("var", tensor({1, 1, 1, static_cast<std::int32_t>(var.size())}, var));
}

TEST(BatchNormRecord, ReadsEveryKey) {
  const auto record = bn_record({1, 2, 3}, {4, 5, 6}).add("maf", 0.5F).add("eps", 0.25F);
  const auto loaded = load_layer(record, 4, 3, /*batch=*/2);
  const auto* norm = dynamic_cast<BatchNormLayer*>(loaded.layer);
  ASSERT_NE(norm, nullptr) << loaded.reason;
  EXPECT_EQ(norm->type, 3U);
  EXPECT_EQ(norm->moving_average_fraction, 0.5F);
  EXPECT_EQ(norm->epsilon, 0.25F);
  EXPECT_TRUE(norm->global_statistics);
  EXPECT_EQ(values_of(*norm->mean), (std::vector<float>{1, 2, 3}));
  EXPECT_EQ(values_of(*norm->divisor), (std::vector<float>{4, 5, 6}));
  EXPECT_EQ(norm->outputs.back()->dims, (Dims{2, 4, 4, 3}));
}

TEST(BatchNormRecord, FractionAndEpsilonAreZeroWhenAbsent) {
  const auto loaded = load_layer(bn_record({1}, {1}), 2, 1);
  const auto* norm = dynamic_cast<BatchNormLayer*>(loaded.layer);
  ASSERT_NE(norm, nullptr) << loaded.reason;
  EXPECT_EQ(norm->moving_average_fraction, 0.0F);
  EXPECT_EQ(norm->epsilon, 0.0F);
}

TEST(BatchNormRecord, WhatTheWriterAddsIsNotRead) {
  const auto loaded = load_layer(bn_record({1}, {1}).add("is_global", 0).add("channels", 9), 2, 1);
  const auto* norm = dynamic_cast<BatchNormLayer*>(loaded.layer);
  ASSERT_NE(norm, nullptr) << loaded.reason;
  EXPECT_TRUE(norm->global_statistics);
}

TEST(BatchNormRecord, TheStatisticsGetTheNetworksLayoutAndAreNeverQuantised) {
  ModelBuilder model(2, 3);
  model.set("layout", text("BCHW")).set("need_quant", integer(1));
  const auto result = load(model.add_layer(bn_record({1, 2, 3}, {4, 5, 6})));
  ASSERT_TRUE(result.network) << result.reason;
  const auto& norm = dynamic_cast<BatchNormLayer&>(*result.network->layers.back());
  EXPECT_EQ(norm.mean->layout, kPlanar);
  EXPECT_EQ(norm.divisor->layout, kPlanar);
  EXPECT_EQ(values_of(*norm.divisor), (std::vector<float>{4, 5, 6}));
}

TEST(BatchNormRecord, AMissingKeyIsNamedInTheReason) {
  const auto without_mean = layer("bn", {"data"}, {"out"}).add("var", tensor({1}, {1}));
  EXPECT_EQ(load_layer(without_mean, 2, 1).reason, "layer 0 (bn): mean: the key is missing");
  const auto without_var = layer("bn", {"data"}, {"out"}).add("mean", tensor({1}, {1}));
  EXPECT_EQ(load_layer(without_var, 2, 1).reason, "layer 0 (bn): var: the key is missing");
}

TEST(BatchNormRecord, StatisticsThatAreTooShortAreRefused) {
  EXPECT_EQ(load_layer(bn_record({1, 2}, {1, 2, 3}), 2, 3).reason,
            "layer 0 (bn): mean: the tensor holds fewer values than var's channels");
  EXPECT_EQ(load_layer(bn_record({1}, {}), 2, 3).reason,
            "layer 0 (bn): var: the tensor holds no value");
}

TEST(BatchNormRecord, AnUnresolvedInputWarnsWithTheClassAndIsRefused) {
  testing::internal::CaptureStdout();
  const auto record =
      layer("bn", {"nowhere"}, {"out"}).add("mean", tensor({1}, {1})).add("var", tensor({1}, {1}));
  EXPECT_FALSE(load_layer(record, 4, 1).network);
  EXPECT_EQ(testing::internal::GetCapturedStdout(),
            "[WARNING]\tBatchNorm still not hit nowhere. TODO need to do something\n");
}

}  // namespace
}  // namespace ravu::test
