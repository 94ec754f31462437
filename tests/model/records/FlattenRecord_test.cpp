// Record "flatten": the output shape, refusals.
#include <gtest/gtest.h>

#include "layers/FlattenLayer.h"
#include "support/blobs.h"

namespace ravu::test {
namespace {

TEST(FlattenRecord, TheOutputHasOnePixelPerImage) {
  const auto loaded = load_layer(layer("flatten", {"data"}, {"out"}), 4, 3, /*batch=*/2);
  const auto* flatten = dynamic_cast<FlattenLayer*>(loaded.layer);
  ASSERT_NE(flatten, nullptr) << loaded.reason;
  EXPECT_EQ(flatten->type, 20U);
  EXPECT_EQ(flatten->outputs.back()->dims, (Dims{2, 1, 1, 48}));
  EXPECT_EQ(flatten->outputs.back()->count, 96U);
}

TEST(FlattenRecord, AnInputWithoutABatchIsRefused) {
  // More replaced elements than there are: the inferred batch is 0.
  const auto result = load(ModelBuilder(2, 1)
                               .add_layer(layer("reshape", {"data"}, {"none"})
                                              .add("constant_count", 0)
                                              .add("inferred_axis", 0)
                                              .add("dims", small_ints({-1, 5, 1, 1})))
                               .add_layer(layer("flatten", {"none"}, {"out"})));
  EXPECT_EQ(result.reason, "layer 1 (flatten): input_layers: the input has a batch of 0");
}

TEST(FlattenRecord, AnUnresolvedInputWarnsWithTheClassAndIsRefused) {
  testing::internal::CaptureStdout();
  EXPECT_FALSE(load_layer(layer("flatten", {"nowhere"}, {"out"}), 4, 1).network);
  EXPECT_EQ(testing::internal::GetCapturedStdout(),
            "[WARNING]\tFlatten still not hit nowhere. TODO need to do something\n");
}

}  // namespace
}  // namespace ravu::test
