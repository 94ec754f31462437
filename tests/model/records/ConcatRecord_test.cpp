// Record "concat": the output shape, refusals.
#include <gtest/gtest.h>

#include "layers/ConcatLayer.h"
#include "support/blobs.h"

namespace ravu::test {
namespace {

// A pooling layer that keeps the channels and takes `less` off height and width.
Bytes pool(const char* output, int less) {
  return layer("pool", {"data"}, {output})
      .add("psize", 1 + less)
      .add("stride", 1)
      .add("mode", "max");
}

TEST(ConcatRecord, TheChannelsAddUp) {
  LoadOptions options;
  options.batch = 2;
  const auto result = load(ModelBuilder(4, 3)
                               .add_layer(layer("concat", {"data", "data"}, {"six"}))
                               .add_layer(layer("concat", {"data", "six"}, {"nine"})),
                           options);
  ASSERT_TRUE(result.network) << result.reason;
  const auto& concat = dynamic_cast<ConcatLayer&>(*result.network->layers.back());
  EXPECT_EQ(concat.type, 1U);
  EXPECT_EQ(concat.axis, 3U);
  EXPECT_EQ(concat.outputs.back()->dims, (Dims{2, 4, 4, 9}));
  EXPECT_EQ(concat.outputs.back()->count, 2U * 4 * 4 * 9);
}

TEST(ConcatRecord, HeightAndWidthAreTheFirstInputs) {
  const auto result = load(ModelBuilder(4, 3)
                               .add_layer(pool("small", 1))
                               .add_layer(layer("concat", {"small", "data"}, {"both"})));
  // The last pixels of the output would come from beyond the first input's end.
  EXPECT_EQ(result.reason, "layer 1 (concat): an input has fewer pixels than the output");
}

TEST(ConcatRecord, AnUnresolvedInputIsLeftOutAfterAWarning) {
  testing::internal::CaptureStdout();
  const auto loaded = load_layer(layer("concat", {"nowhere", "data"}, {"out"}), 4, 3);
  EXPECT_EQ(testing::internal::GetCapturedStdout(),
            "[WARNING]\tconcat still not hit nowhere. TODO need to do something\n");
  ASSERT_NE(loaded.layer, nullptr) << loaded.reason;
  EXPECT_EQ(loaded.layer->outputs.back()->dims, (Dims{1, 4, 4, 3}));
}

TEST(ConcatRecord, WithoutAnyInputTheModelIsRefused) {
  EXPECT_EQ(load_layer(layer("concat", {}, {"out"}), 4, 3).reason,
            "layer 0 (concat): input_layers: the layer has no input");
}

TEST(ConcatRecord, SumsBeyondTheLargestCountAreRefused) {
  std::vector<std::string> names(4000, "data");
  EXPECT_FALSE(load_layer(layer("concat", names, {"out"}), 1024, 1).network);
}

}  // namespace
}  // namespace ravu::test
