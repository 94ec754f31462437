// Record "eltwise": the operation's words, output shape, refusals.
#include <gtest/gtest.h>

#include "layers/EltWiseLayer.h"
#include "support/blobs.h"

namespace ravu::test {
namespace {

// The operation that the word gives; `message` gets what was printed to standard error.
std::int32_t read_operation(const char* word, std::string* message) {
  testing::internal::CaptureStderr();
  const auto loaded =
      load_layer(layer("eltwise", {"data", "data"}, {"out"}).add("operation", word), 2, 3);
  *message = testing::internal::GetCapturedStderr();
  const auto* eltwise = dynamic_cast<EltWiseLayer*>(loaded.layer);
  return eltwise == nullptr ? -1 : eltwise->operation;
}

TEST(EltWiseRecord, ReadsTheThreeOperations) {
  std::string message;
  EXPECT_EQ(read_operation("sum", &message), 0);
  EXPECT_EQ(read_operation("prod", &message), 3);
  EXPECT_EQ(read_operation("max", &message), 2);
  EXPECT_EQ(message, "");
}

TEST(EltWiseRecord, AnUnknownOperationIsReportedAndBecomesMax) {
  std::string message;
  for (const char* word : {"mean", "SUM", "sums", "su", ""}) {
    EXPECT_EQ(read_operation(word, &message), 2);
    EXPECT_EQ(message, "Unknow eltwise operation " + std::string(word) + "\n");
  }
}

TEST(EltWiseRecord, TheOutputHasTheLastInputsShape) {
  const auto loaded =
      load_layer(layer("eltwise", {"data", "data"}, {"out"}).add("operation", "sum"), 2, 3, 2);
  ASSERT_NE(loaded.layer, nullptr) << loaded.reason;
  EXPECT_EQ(loaded.layer->type, 7U);
  EXPECT_EQ(loaded.layer->inputs.size(), 2U);
  EXPECT_EQ(loaded.layer->outputs.back()->dims, (Dims{2, 2, 2, 3}));
}

TEST(EltWiseRecord, AMissingOperationIsNamedInTheReason) {
  testing::internal::CaptureStderr();
  EXPECT_EQ(load_layer(layer("eltwise", {"data"}, {"out"}), 2, 3).reason,
            "layer 0 (eltwise): operation: the key is missing");
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
}

TEST(EltWiseRecord, ASumOfAnInputSmallerThanTheOutputIsRefused) {
  const auto record = [](const char* operation) {
    return ModelBuilder(2, 3)
        .add_layer(
            layer("pool", {"data"}, {"pooled"}).add("psize", 2).add("stride", 1).add("mode", "max"))
        .add_layer(layer("eltwise", {"pooled", "data"}, {"out"}).add("operation", operation));
  };
  EXPECT_EQ(load(record("sum")).reason, "layer 1 (eltwise): an input is smaller than the output");
  EXPECT_TRUE(load(record("max")).network);  // nothing is computed
}

TEST(EltWiseRecord, AnUnresolvedInputWarnsWithTheClass) {
  testing::internal::CaptureStdout();
  const auto record = layer("eltwise", {"nowhere"}, {"out"}).add("operation", "sum");
  EXPECT_FALSE(load_layer(record, 4, 1).network);
  EXPECT_EQ(testing::internal::GetCapturedStdout(),
            "[WARNING]\tEltwise still not hit nowhere. TODO need to do something\n");
}

}  // namespace
}  // namespace ravu::test
