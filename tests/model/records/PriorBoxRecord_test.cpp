// Record "priorbox": keys, defaults, the output shape, what is refused.
#include <gtest/gtest.h>

#include "layers/PriorBoxLayer.h"
#include "support/blobs.h"

namespace ravu::test {
namespace {

// The keys that every record needs, but for those that a test adds itself.
Dictionary prior_record(const std::vector<std::string>& inputs = {"data", "data"}) {
  return layer("priorbox", inputs, {"priors"})
      .add("flip", 1)
      .add("clip", 2)
      .add("aspect_ratios", small_floats({2.0F, 0.5F}));
}

Dictionary with_lists(Dictionary record, const std::vector<float>& variances,
                      const std::vector<float>& min_sizes, const std::vector<float>& max_sizes) {
  return record.add("variance", small_floats(variances))
      .add("min_size", small_floats(min_sizes))
      .add("max_size", small_floats(max_sizes));
}

Dictionary with_sizes(Dictionary record, int img_h, int img_w, int step_h, int step_w) {
  return record.add("img_h", img_h).add("img_w", img_w).add("step_h", step_h).add("step_w", step_w);
}

TEST(PriorBoxRecord, ReadsEveryKey) {
  const auto record = with_lists(
      with_sizes(prior_record().add("num_priors", 4).add("offset", 0.5F), 300, 200, 8, 16),
      {0.1F, 0.1F, 0.2F, 0.2F}, {30}, {60});
  const auto loaded = load_layer(record, 6, 3, /*batch=*/2);
  const auto* prior = dynamic_cast<PriorBoxLayer*>(loaded.layer);
  ASSERT_NE(prior, nullptr);
  EXPECT_EQ(prior->type, 16U);
  EXPECT_EQ(prior->aspect_ratios, (std::vector<float>{2.0F, 0.5F}));
  EXPECT_EQ(prior->variances, (std::vector<float>{0.1F, 0.1F, 0.2F, 0.2F}));
  EXPECT_EQ(prior->min_sizes, std::vector<float>{30});
  EXPECT_EQ(prior->max_sizes, std::vector<float>{60});
  EXPECT_EQ(prior->num_priors, 4U);
  EXPECT_TRUE(prior->flip);
  EXPECT_TRUE(prior->clip);
  EXPECT_EQ(prior->img_h, 300U);
  EXPECT_EQ(prior->img_w, 200U);
  EXPECT_EQ(prior->step_h, 8U);
  EXPECT_EQ(prior->step_w, 16U);
  EXPECT_EQ(prior->offset, 0.5F);
  EXPECT_EQ(prior->outputs.back()->dims, (Dims{1, 2, 1, 6 * 6 * 4 * 4}));
  EXPECT_EQ(prior->outputs.back()->count, 2U * 6 * 6 * 4 * 4);
}

TEST(PriorBoxRecord, TheOffsetIsZeroWhenAbsentAndMaxSizesMayBeEmpty) {
  const auto record =
      with_lists(with_sizes(prior_record().add("num_priors", 3), 300, 300, 0, 0), {0.1F}, {30}, {});
  const auto loaded = load_layer(record, 6, 3);
  const auto* prior = dynamic_cast<PriorBoxLayer*>(loaded.layer);
  ASSERT_NE(prior, nullptr);
  EXPECT_EQ(prior->offset, 0.0F);
  EXPECT_TRUE(prior->max_sizes.empty());
}

TEST(PriorBoxRecord, TheBitsOfTheSizesAreIntegersWhateverTheElementsSay) {
  auto record = prior_record().add("num_priors", 3);
  record.add("img_h", 1.0F).add("img_w", 1.0F).add("step_h", 1.0F).add("step_w", 1.0F);
  const auto loaded = load_layer(with_lists(record, {0.1F}, {30}, {}), 6, 3);
  const auto* prior = dynamic_cast<PriorBoxLayer*>(loaded.layer);
  ASSERT_NE(prior, nullptr);
  EXPECT_EQ(prior->img_h, 0x3F800000U);
  EXPECT_EQ(prior->step_w, 0x3F800000U);
}

TEST(PriorBoxRecord, TheFirstInputIsTheFeatureMap) {
  const auto pool =
      layer("pool", {"data"}, {"map"}).add("psize", 2).add("stride", 2).add("mode", "max");
  const auto record = with_lists(
      with_sizes(prior_record({"map", "data"}).add("num_priors", 3), 0, 0, 0, 0), {0.1F}, {30}, {});
  const auto result = load(ModelBuilder(6, 3).add_layer(pool).add_layer(record));
  ASSERT_TRUE(result.network) << result.reason;
  EXPECT_EQ(result.network->layers.back()->outputs.back()->dims, (Dims{1, 2, 1, 3 * 3 * 3 * 4}));
}

TEST(PriorBoxRecord, MissingKeysAreNamedInTheReason) {
  EXPECT_EQ(load_layer(prior_record(), 6, 3).reason,
            "layer 0 (priorbox): num_priors: the key is missing");
  const auto sizes = with_sizes(prior_record().add("num_priors", 3), 300, 300, 0, 0);
  EXPECT_EQ(load_layer(sizes, 6, 3).reason, "layer 0 (priorbox): variance: the key is missing");
}

TEST(PriorBoxRecord, NumPriorsWithoutRoomForTheBoxesIsRefused) {
  const auto record = with_lists(with_sizes(prior_record().add("num_priors", 1), 300, 300, 0, 0),
                                 {0.1F}, {30, 60}, {});
  EXPECT_EQ(load_layer(record, 6, 3).reason,
            "layer 0 (priorbox): num_priors: the output has no room for the boxes");
}

TEST(PriorBoxRecord, ANegativeNumPriorsIsRefused) {
  const auto record = with_lists(with_sizes(prior_record().add("num_priors", -1), 300, 300, 0, 0),
                                 {0.1F}, {30}, {});
  EXPECT_FALSE(load_layer(record, 6, 3).network);
}

TEST(PriorBoxRecord, AMissingImageIsRefusedWhereItsSizeIsNeeded) {
  const auto record = [](int img_h) {
    return with_lists(with_sizes(prior_record({"data"}).add("num_priors", 3), img_h, 300, 0, 0),
                      {0.1F}, {30}, {});
  };
  EXPECT_FALSE(load_layer(record(0), 6, 3).network);
  EXPECT_TRUE(load_layer(record(300), 6, 3).network);
}

}  // namespace
}  // namespace ravu::test
