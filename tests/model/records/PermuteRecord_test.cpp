// Record "permute": keys, output shape, refusals.
#include <gtest/gtest.h>

#include "layers/PermuteLayer.h"
#include "support/blobs.h"

namespace ravu::test {
namespace {

Dictionary permute_record(int need_permute, const std::vector<std::int32_t>& order) {
  return layer("permute", {"data"}, {"out"})
      .add("need_permute", need_permute)
      .add("permute_order", small_ints(order));
}

TEST(PermuteRecord, ReadsEveryKeyAndKeepsTheShape) {
  const auto loaded = load_layer(permute_record(1, {0, 3, 1, 2}), 4, 3, /*batch=*/2);
  const auto* permute = dynamic_cast<PermuteLayer*>(loaded.layer);
  ASSERT_NE(permute, nullptr) << loaded.reason;
  EXPECT_EQ(permute->type, 18U);
  EXPECT_TRUE(permute->need_permute);
  EXPECT_EQ(permute->order, (std::array<std::uint32_t, 4>{0, 3, 1, 2}));
  EXPECT_EQ(permute->outputs.back()->dims, (Dims{2, 4, 4, 3}));
}

TEST(PermuteRecord, AnyFlagButZeroIsSet) {
  for (const int flag : {0, 1, 2, -1, 256}) {
    const auto loaded = load_layer(permute_record(flag, {0, 1, 2, 3}), 4, 3);
    const auto* permute = dynamic_cast<PermuteLayer*>(loaded.layer);
    ASSERT_NE(permute, nullptr) << loaded.reason;
    EXPECT_EQ(permute->need_permute, flag != 0);
  }
}

TEST(PermuteRecord, AnOrderThatIsNoneIsRefusedWhereItIsUsed) {
  for (const auto& order : {std::vector<std::int32_t>{0, 0, 1, 2}, {0, 1, 2, 4}, {-1, 0, 1, 2}}) {
    EXPECT_EQ(load_layer(permute_record(1, order), 4, 3).reason,
              "layer 0 (permute): permute_order must hold 0, 1, 2 and 3 once each");
    EXPECT_TRUE(load_layer(permute_record(0, order), 4, 3).network);
  }
}

TEST(PermuteRecord, AMissingOrShortKeyIsNamedInTheReason) {
  EXPECT_EQ(load_layer(layer("permute", {"data"}, {"out"}), 4, 3).reason,
            "layer 0 (permute): need_permute: the key is missing");
  EXPECT_EQ(load_layer(layer("permute", {"data"}, {"out"}).add("need_permute", 1), 4, 3).reason,
            "layer 0 (permute): permute_order: the key is missing");
  EXPECT_EQ(load_layer(permute_record(1, {0, 1, 2}), 4, 3).reason,
            "layer 0 (permute): permute_order: the value is too short");
}

TEST(PermuteRecord, AnUnresolvedInputWarnsWithTheClassAndIsRefused) {
  testing::internal::CaptureStdout();
  const auto record = layer("permute", {"nowhere"}, {"out"})
                          .add("need_permute", 0)
                          .add("permute_order", small_ints({0, 1, 2, 3}));
  EXPECT_FALSE(load_layer(record, 4, 1).network);
  EXPECT_EQ(testing::internal::GetCapturedStdout(),
            "[WARNING]\tPermute still not hit nowhere. TODO need to do something\n");
}

}  // namespace
}  // namespace ravu::test
