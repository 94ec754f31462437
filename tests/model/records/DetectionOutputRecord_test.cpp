// Record "detectionout": keys, defaults, the output shape, what is refused.
#include <gtest/gtest.h>

#include "layers/DetectionOutputLayer.h"
#include "support/blobs.h"

namespace ravu::test {
namespace {

struct Keys {
  int num_classes = 3;
  int share_location = 1;
  int num_loc_classes = 1;
  int keep_top_k = 5;
};

Dictionary detection_record(const Keys& keys = {}) {
  return layer("detectionout", {"data", "data", "data"}, {"detections"})
      .add("num_classes", keys.num_classes)
      .add("share_location", keys.share_location)
      .add("num_loc_classes", keys.num_loc_classes)
      .add("background_label_id", -7)
      .add("code_type", 2)
      .add("variance_encoded_in_target", 1)
      .add("top_k", 400)
      .add("keep_top_k", keys.keep_top_k);
}

// On an input of 4 x 4 pixels with 16 channels all three inputs are that Blob: four priors.
LoadedLayer load_detection(const Bytes& record) {
  return load_layer(record, 4, 16);
}

TEST(DetectionOutputRecord, ReadsEveryKey) {
  const auto loaded = load_detection(detection_record()
                                         .add("confidence_threshold", 0.01F)
                                         .add("nms_threshold", 0.45F)
                                         .add("eta", 1.0F));
  const auto* detection = dynamic_cast<DetectionOutputLayer*>(loaded.layer);
  ASSERT_NE(detection, nullptr) << loaded.reason;
  EXPECT_EQ(detection->type, 17U);
  EXPECT_EQ(detection->num_classes, 3U);
  EXPECT_TRUE(detection->share_location);
  EXPECT_EQ(detection->num_loc_classes, 1U);
  EXPECT_EQ(detection->background_label_id, -7);
  EXPECT_EQ(detection->code_type, 2U);
  EXPECT_TRUE(detection->variance_encoded_in_target);
  EXPECT_EQ(detection->top_k, 400);
  EXPECT_EQ(detection->keep_top_k, 5);
  EXPECT_EQ(detection->confidence_threshold, 0.01F);
  EXPECT_EQ(detection->nms_threshold, 0.45F);
  EXPECT_EQ(detection->eta, 1.0F);
  EXPECT_EQ(detection->num_priors, 4);
  EXPECT_EQ(detection->outputs.back()->dims, (Dims{1, 1, 5, 7}));
  EXPECT_EQ(detection->outputs.back()->count, 35U);
}

TEST(DetectionOutputRecord, ThresholdsAndEtaAreZeroWhenAbsent) {
  const auto loaded = load_detection(detection_record());
  const auto* detection = dynamic_cast<DetectionOutputLayer*>(loaded.layer);
  ASSERT_NE(detection, nullptr);
  EXPECT_EQ(detection->confidence_threshold, 0.0F);
  EXPECT_EQ(detection->nms_threshold, 0.0F);
  EXPECT_EQ(detection->eta, 0.0F);
}

TEST(DetectionOutputRecord, ANegativeKeepTopKGivesAnOutputWithoutRows) {
  Keys keys;
  keys.keep_top_k = -1;
  const auto loaded = load_detection(detection_record(keys));
  ASSERT_NE(loaded.layer, nullptr) << loaded.reason;
  EXPECT_EQ(loaded.layer->outputs.back()->dims, (Dims{1, 1, 0, 7}));
  loaded.layer->Forward(0);
}

TEST(DetectionOutputRecord, MissingKeysAreNamedInTheReason) {
  const auto record =
      layer("detectionout", {"data", "data", "data"}, {"out"}).add("num_classes", 3);
  EXPECT_EQ(load_detection(record).reason,
            "layer 0 (detectionout): share_location: the key is missing");
}

TEST(DetectionOutputRecord, HostileNumbersAreRefused) {
  for (const int number : {INT32_MIN, -1, 0x20000000, INT32_MAX}) {
    Keys classes, loc_classes;
    classes.num_classes = number;
    loc_classes.num_loc_classes = number;
    EXPECT_FALSE(load_detection(detection_record(classes)).network) << number;
    EXPECT_FALSE(load_detection(detection_record(loc_classes)).network) << number;
  }
  Keys rows;
  rows.keep_top_k = INT32_MAX;
  EXPECT_FALSE(load_detection(detection_record(rows)).network);
}

TEST(DetectionOutputRecord, AClassWithoutLocationsIsRefused) {
  Keys keys;
  keys.share_location = 0;
  keys.num_loc_classes = 2;
  EXPECT_EQ(load_detection(detection_record(keys)).reason,
            "layer 0 (detectionout): num_loc_classes: a class has no locations");
}

TEST(DetectionOutputRecord, AMissingInputIsRefused) {
  const auto record = [](const std::vector<std::string>& inputs) {
    return layer("detectionout", inputs, {"out"})
        .add("num_classes", 1)
        .add("share_location", 1)
        .add("num_loc_classes", 1)
        .add("background_label_id", 0)
        .add("code_type", 2)
        .add("variance_encoded_in_target", 0)
        .add("top_k", 1)
        .add("keep_top_k", 1);
  };
  EXPECT_FALSE(load_detection(record({"data", "data"})).network);
  EXPECT_TRUE(load_detection(record({"data", "data", "data"})).network);
}

}  // namespace
}  // namespace ravu::test
