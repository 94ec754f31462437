// Record "reshape": keys, output shape, refusals.
#include <gtest/gtest.h>

#include "layers/ReshapeLayer.h"
#include "support/blobs.h"

namespace ravu::test {
namespace {

Dictionary reshape_record(int inferred_axis, const std::vector<std::int32_t>& dims) {
  return layer("reshape", {"data"}, {"out"})
      .add("constant_count", 7)
      .add("inferred_axis", inferred_axis)
      .add("dims", small_ints(dims));
}

TEST(ReshapeRecord, ReadsEveryKey) {
  const auto loaded = load_layer(reshape_record(1, {0, -1, 1, 1}), 2, 5, /*batch=*/2);
  const auto* reshaped = dynamic_cast<ReshapeLayer*>(loaded.layer);
  ASSERT_NE(reshaped, nullptr) << loaded.reason;
  EXPECT_EQ(reshaped->type, 19U);
  EXPECT_EQ(reshaped->constant_count, 7);
  EXPECT_EQ(reshaped->inferred_axis, 1);
  EXPECT_EQ(reshaped->dims, (std::array<std::int32_t, 4>{0, -1, 1, 1}));
  EXPECT_EQ(reshaped->outputs.back()->dims, (Dims{2, 40, 1, 1}));
  EXPECT_EQ(reshaped->outputs.back()->count, 40U);
}

TEST(ReshapeRecord, MinusOneInfersNoAxis) {
  const auto loaded = load_layer(reshape_record(-1, {1, 1, 4, 5}), 2, 5);
  ASSERT_NE(loaded.layer, nullptr) << loaded.reason;
  EXPECT_EQ(loaded.layer->outputs.back()->dims, (Dims{1, 1, 4, 5}));
}

TEST(ReshapeRecord, AnAxisBeyondTheLastIsRefused) {
  for (const int axis : {4, 5, 0x7FFFFFFF}) {
    EXPECT_EQ(load_layer(reshape_record(axis, {1, 1, 4, 5}), 2, 5).reason,
              "layer 0 (reshape): inferred_axis must be below 4");
  }
}

TEST(ReshapeRecord, AMissingOrShortKeyIsNamedInTheReason) {
  const auto record = layer("reshape", {"data"}, {"out"}).add("constant_count", 0);
  EXPECT_EQ(load_layer(record, 2, 5).reason,
            "layer 0 (reshape): inferred_axis: the key is missing");
  EXPECT_EQ(load_layer(reshape_record(-1, {1, 1, 4}), 2, 5).reason,
            "layer 0 (reshape): dims: the value is too short");
  EXPECT_EQ(load_layer(layer("reshape", {"data"}, {"out"}), 2, 5).reason,
            "layer 0 (reshape): constant_count: the key is missing");
}

TEST(ReshapeRecord, AnUnresolvedInputWarnsWithTheClassAndIsRefused) {
  testing::internal::CaptureStdout();
  const auto record = layer("reshape", {"nowhere"}, {"out"})
                          .add("constant_count", 0)
                          .add("inferred_axis", -1)
                          .add("dims", small_ints({1, 1, 1, 1}));
  EXPECT_FALSE(load_layer(record, 4, 1).network);
  EXPECT_EQ(testing::internal::GetCapturedStdout(),
            "[WARNING]\tReshape still not hit nowhere. TODO need to do something\n");
}

}  // namespace
}  // namespace ravu::test
