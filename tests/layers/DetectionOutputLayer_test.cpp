// Detection output: thresholds, suppression, limits, row order, decoding, and hostile sizes.
#include "layers/DetectionOutputLayer.h"

#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <random>

#include "kernels/kernels.h"
#include "support/blobs.h"
#include "support/reference.h"

namespace ravu::test {
namespace {

using Rows = std::vector<std::vector<float>>;

const std::vector<float> kBoxA{0, 0, 1, 1};
const std::vector<float> kBoxB{0.5F, 0, 1.5F, 1};  // overlaps A by a third
const std::vector<float> kBoxC{5, 5, 6, 6};
const std::vector<float> kTouchingA{1, 0, 2, 1};

std::vector<float> concat(const Rows& parts) {
  std::vector<float> all;
  for (const auto& part : parts) all.insert(all.end(), part.begin(), part.end());
  return all;
}

std::vector<float> row(float image, float label, float score, const std::vector<float>& box) {
  return {image, label, score, box[0], box[1], box[2], box[3]};
}

// A detector whose locations are all zero, so that its boxes are the priors. `scores` are per
// image, prior and class.
struct Detector {
  Detector(const Rows& priors, std::uint32_t classes, const std::vector<float>& scores,
           std::uint32_t rows = 10)
      : rig(layer), prior_count(static_cast<std::uint32_t>(priors.size())) {
    layer.num_classes = classes;
    layer.num_priors = static_cast<std::int32_t>(prior_count);
    layer.share_location = true;
    layer.num_loc_classes = 1;
    layer.code_type = kernels::kCornerBox;
    layer.keep_top_k = layer.top_k = -1;
    layer.background_label_id = -2;
    layer.nms_threshold = 0.3F;
    layer.eta = 1.0F;
    const auto count = static_cast<std::uint32_t>(scores.size());
    const std::uint32_t images = count / (prior_count * classes);
    std::vector<float> rows_of_priors = concat(priors);
    rows_of_priors.resize(prior_count * 8, 1.0F);  // variances of 1
    rig.add_input({images, 1, 1, prior_count * 4}, std::vector<float>(images * prior_count * 4));
    rig.add_input({images, 1, 1, prior_count * classes}, scores);
    rig.add_input({1, 2, 1, prior_count * 4}, rows_of_priors);
    rig.add_output({1, 1, rows, 7});
    rig.set_up();
  }

  // The rows that are not all zero at the output's end, and nothing else.
  Rows run() {
    const auto values = rig.run();
    Rows rows;
    for (std::size_t i = 0; i + 7 <= values.size(); i += 7) {
      rows.emplace_back(values.begin() + static_cast<std::ptrdiff_t>(i),
                        values.begin() + static_cast<std::ptrdiff_t>(i + 7));
    }
    while (!rows.empty() && rows.back() == std::vector<float>(7, 0.0F)) rows.pop_back();
    return rows;
  }

  Blob& locations() { return *layer.inputs[0]; }

  DetectionOutputLayer layer;
  LayerRig rig;
  std::uint32_t prior_count;
};

TEST(DetectionOutputLayerForward, ScoresAtOrBelowTheThresholdGiveZerosOnly) {
  Detector detector({kBoxA, kBoxC}, 1, {0.5F, 0.4F});
  std::vector<float> garbage(70, 9.0F);
  assign(*detector.layer.outputs[0], garbage.data());
  detector.layer.confidence_threshold = 0.5F;
  EXPECT_EQ(detector.rig.run(), std::vector<float>(70, 0.0F));
}

TEST(DetectionOutputLayerForward, AScoreEqualToTheThresholdIsNoCandidate) {
  Detector detector({kBoxA, kBoxC}, 1, {0.5F, 0.500001F});
  detector.layer.confidence_threshold = 0.5F;
  EXPECT_EQ(detector.run(), Rows{row(0, 0, 0.500001F, kBoxC)});
}

TEST(DetectionOutputLayerForward, NotANumberIsNoCandidate) {
  Detector detector({kBoxA, kBoxC}, 1, {std::numeric_limits<float>::quiet_NaN(), 0.1F});
  EXPECT_EQ(detector.run(), Rows{row(0, 0, 0.1F, kBoxC)});
}

TEST(DetectionOutputLayerForward, EverythingBehindTheLastRowIsZero) {
  Detector detector({kBoxA}, 1, {0.5F});
  std::vector<float> garbage(70, 9.0F);
  assign(*detector.layer.outputs[0], garbage.data());
  auto expected = row(0, 0, 0.5F, kBoxA);
  expected.resize(70, 0.0F);
  EXPECT_EQ(detector.rig.run(), expected);
}

TEST(DetectionOutputLayerForward, AGreaterOverlapSuppressesTheLessCertainBox) {
  Detector detector({kBoxA, kBoxB, kBoxC}, 1, {0.5F, 0.9F, 0.1F});
  EXPECT_EQ(detector.run(), (Rows{row(0, 0, 0.9F, kBoxB), row(0, 0, 0.1F, kBoxC)}));
}

TEST(DetectionOutputLayerForward, AnOverlapEqualToTheThresholdKeepsBoth) {
  Detector detector({kBoxA, kBoxB}, 1, {0.5F, 0.9F});
  detector.layer.nms_threshold = 0.5F / 1.5F;
  EXPECT_EQ(detector.run().size(), 2U);
  detector.layer.nms_threshold = std::nextafter(0.5F / 1.5F, 0.0F);
  EXPECT_EQ(detector.run().size(), 1U);
}

TEST(DetectionOutputLayerForward, BoxesOfDifferentClassesDoNotSuppressEachOther) {
  Detector detector({kBoxA}, 2, {0.5F, 0.9F});
  EXPECT_EQ(detector.run(), (Rows{row(0, 0, 0.5F, kBoxA), row(0, 1, 0.9F, kBoxA)}));
}

TEST(DetectionOutputLayerForward, BoxesThatTouchAlongAnEdgeDoNotOverlap) {
  Detector detector({kBoxA, kTouchingA}, 1, {0.5F, 0.9F});
  detector.layer.nms_threshold = 0.0F;
  EXPECT_EQ(detector.run().size(), 2U);
  detector.layer.nms_threshold = -0.1F;  // now even an overlap of 0 is greater
  EXPECT_EQ(detector.run().size(), 1U);
}

TEST(DetectionOutputLayerForward, BoxesTurnedInsideOutKeepTheirProductAsSize) {
  // Both sides negative: the size is 1, but nothing intersects with it.
  Detector detector({{1, 1, 0, 0}, kBoxA}, 1, {0.9F, 0.5F});
  detector.layer.nms_threshold = 0.0F;
  EXPECT_EQ(detector.run().size(), 2U);
}

TEST(DetectionOutputLayerForward, EqualScoresConsiderTheLowerPriorFirst) {
  Detector detector({kBoxB, kBoxA, kBoxC}, 1, {0.5F, 0.5F, 0.5F});
  EXPECT_EQ(detector.run(), (Rows{row(0, 0, 0.5F, kBoxB), row(0, 0, 0.5F, kBoxC)}));
}

TEST(DetectionOutputLayerForward, TopKCutsTheCandidatesBeforeSuppression) {
  Detector detector({kBoxA, kBoxB, kBoxC}, 1, {0.9F, 0.8F, 0.7F});
  detector.layer.top_k = 2;
  EXPECT_EQ(detector.run(), Rows{row(0, 0, 0.9F, kBoxA)});
  detector.layer.top_k = 0;
  EXPECT_TRUE(detector.run().empty());
  detector.layer.top_k = -1;
  EXPECT_EQ(detector.run(), (Rows{row(0, 0, 0.9F, kBoxA), row(0, 0, 0.7F, kBoxC)}));
}

TEST(DetectionOutputLayerForward, KeepTopKKeepsTheMostCertainOfAllClassesInClassOrder) {
  Detector detector({kBoxA, kBoxC}, 3, {0.3F, 0.9F, 0.5F, 0.8F, 0.2F, 0.7F});
  detector.layer.keep_top_k = 3;
  EXPECT_EQ(detector.run(),
            (Rows{row(0, 0, 0.8F, kBoxC), row(0, 1, 0.9F, kBoxA), row(0, 2, 0.7F, kBoxC)}));
  detector.layer.keep_top_k = 0;
  EXPECT_TRUE(detector.run().empty());
  detector.layer.keep_top_k = -1;
  EXPECT_EQ(detector.run().size(), 6U);
}

TEST(DetectionOutputLayerForward, TheBackgroundIsNeverWritten) {
  std::vector<float> scores(21, 0.5F);
  Detector detector({kBoxA}, 21, scores, 30);
  detector.layer.background_label_id = 0;
  const auto rows = detector.run();
  ASSERT_EQ(rows.size(), 20U);
  for (std::size_t i = 0; i < 20; ++i) EXPECT_EQ(rows[i][1], static_cast<float>(i + 1));
}

TEST(DetectionOutputLayerForward, RowsOfTheFirstImageComeFirst) {
  Detector detector({kBoxA, kBoxC}, 1, {0.1F, 0.2F, 0.9F, 0.8F});
  EXPECT_EQ(detector.run(), (Rows{row(0, 0, 0.2F, kBoxC), row(0, 0, 0.1F, kBoxA),
                                  row(1, 0, 0.9F, kBoxA), row(1, 0, 0.8F, kBoxC)}));
}

TEST(DetectionOutputLayerForward, KeepTopKLimitsEachImageAndRowsWithoutRoomAreNotWritten) {
  Detector detector({kBoxA, kBoxC}, 1, {0.1F, 0.2F, 0.9F, 0.8F}, /*rows=*/1);
  detector.layer.keep_top_k = 1;
  EXPECT_EQ(detector.run(), Rows{row(0, 0, 0.2F, kBoxC)});
}

TEST(DetectionOutputLayerForward, AnOutputThatIsNoWholeNumberOfRowsEndsInZeros) {
  Detector detector({kBoxA, kBoxC}, 1, {0.1F, 0.2F}, /*rows=*/2);
  Blob& output = *detector.layer.outputs[0];
  reshape(output, *make_blob({1, 1, 1, 10}));
  auto expected = row(0, 0, 0.2F, kBoxC);
  expected.resize(10, 0.0F);
  EXPECT_EQ(detector.rig.run(), expected);
}

TEST(DetectionOutputLayerForward, AnEtaOfZeroForbidsAllOverlapAfterTheFirstKeptBox) {
  // Neighbours of the first box overlap by a third, which a threshold of 0.6 allows.
  Detector detector({kBoxA, kBoxB, kBoxC}, 1, {0.9F, 0.8F, 0.7F});
  detector.layer.nms_threshold = 0.6F;
  EXPECT_EQ(detector.run().size(), 3U);
  detector.layer.eta = 0.0F;
  EXPECT_EQ(detector.run(), (Rows{row(0, 0, 0.9F, kBoxA), row(0, 0, 0.7F, kBoxC)}));
  detector.layer.nms_threshold = 0.5F;  // not above one half: eta does nothing
  EXPECT_EQ(detector.run().size(), 3U);
}

TEST(DetectionOutputLayerForward, EtaShrinksTheThresholdWithEachKeptBox) {
  Detector detector({kBoxC, kBoxA, kBoxB}, 1, {0.9F, 0.8F, 0.7F});
  detector.layer.nms_threshold = 0.9F;
  detector.layer.eta = 0.6F;  // 0.9, 0.54, 0.324
  EXPECT_EQ(detector.run().size(), 2U);
  detector.layer.eta = 0.62F;  // 0.9, 0.558, 0.346
  EXPECT_EQ(detector.run().size(), 3U);
}

TEST(DetectionOutputLayerForward, CornersAreMovedByTheirVariances) {
  Detector detector({{0.1F, 0.2F, 0.5F, 0.6F}}, 1, {0.9F});
  const std::vector<float> location{1, 2, 3, 4};
  assign(detector.locations(), location.data());
  const std::vector<float> priors{0.1F, 0.2F, 0.5F, 0.6F, 0.1F, 0.1F, 0.2F, 0.2F};
  assign(*detector.layer.inputs[2], priors.data());
  EXPECT_EQ(
      detector.run(),
      Rows{row(0, 0, 0.9F, {0.1F + 0.1F * 1, 0.2F + 0.1F * 2, 0.5F + 0.2F * 3, 0.6F + 0.2F * 4})});
  detector.layer.variance_encoded_in_target = true;
  EXPECT_EQ(detector.run(), Rows{row(0, 0, 0.9F, {0.1F + 1, 0.2F + 2, 0.5F + 3, 0.6F + 4})});
}

TEST(DetectionOutputLayerForward, CentresAndSidesAreMovedAndScaled) {
  Detector detector({{0, 0, 2, 4}}, 1, {0.9F});
  detector.layer.code_type = kernels::kCentreSizeBox;
  detector.layer.variance_encoded_in_target = true;
  const std::vector<float> location{0.5F, 0.25F, std::log(2.0F), 0};
  assign(detector.locations(), location.data());
  const auto rows = detector.run();
  ASSERT_EQ(rows.size(), 1U);
  for (std::size_t k = 0; k < 4; ++k) {
    EXPECT_NEAR(rows[0][3 + k], (std::vector<float>{0, 1, 4, 5})[k], 1e-5);
  }
}

TEST(DetectionOutputLayerForward, CornersAreMovedInPartsOfTheSides) {
  Detector detector({{0, 0, 2, 4}}, 1, {0.9F});
  detector.layer.code_type = kernels::kCornerSizeBox;
  const std::vector<float> location{0.5F, 0.5F, 1, 1};
  assign(detector.locations(), location.data());
  EXPECT_EQ(detector.run(), Rows{row(0, 0, 0.9F, {1, 2, 4, 8})});
}

TEST(DetectionOutputLayerForward, BoxesAreNotClipped) {
  Detector detector({{-3, -2, 7, 9}}, 1, {0.9F});
  EXPECT_EQ(detector.run(), Rows{row(0, 0, 0.9F, {-3, -2, 7, 9})});
}

TEST(DetectionOutputLayerForward, AnUnknownCodeTypeGivesEmptyBoxes) {
  for (const std::uint32_t code : {0U, 4U, 0xFFFFFFFFU}) {
    Detector detector({kBoxA, kBoxC}, 1, {0.9F, 0.8F});
    detector.layer.code_type = code;
    EXPECT_EQ(detector.run(), (Rows{row(0, 0, 0.9F, {0, 0, 0, 0}), row(0, 0, 0.8F, {0, 0, 0, 0})}));
  }
}

TEST(DetectionOutputLayerForward, SharedLocationsWithABackgroundOfMinusOneDetectNothing) {
  Detector detector({kBoxA}, 2, {0.9F, 0.8F});
  detector.layer.background_label_id = -1;
  EXPECT_TRUE(detector.run().empty());
}

TEST(DetectionOutputLayerForward, EachClassHasItsOwnLocationsWhenTheyAreNotShared) {
  Detector detector({kBoxA}, 2, {0.9F, 0.8F});
  detector.layer.share_location = false;
  detector.layer.num_loc_classes = 2;
  detector.layer.background_label_id = -1;
  const std::vector<float> locations{1, 1, 1, 1, 2, 2, 2, 2};
  reshape(detector.locations(), *make_blob({1, 1, 1, 8}));
  assign(detector.locations(), locations.data());
  EXPECT_EQ(detector.run(), (Rows{row(0, 0, 0.9F, {1, 1, 2, 2}), row(0, 1, 0.8F, {2, 2, 3, 3})}));
}

TEST(DetectionOutputLayerForward,
     SharedLocationsOfSeveralClassesAreOneListOfWhichPriorsUseTheStart) {
  Detector detector({kBoxA, kBoxC}, 1, {0.9F, 0.8F});
  detector.layer.num_loc_classes = 2;
  std::vector<float> locations(16);
  for (std::size_t i = 0; i < 16; ++i) locations[i] = static_cast<float>(i / 4);
  reshape(detector.locations(), *make_blob({1, 1, 1, 16}));
  assign(detector.locations(), locations.data());
  // Prior 1 is moved by entry 1, which belongs to prior 0's second location class.
  EXPECT_EQ(detector.run(), (Rows{row(0, 0, 0.9F, kBoxA), row(0, 0, 0.8F, {6, 6, 7, 7})}));
}

TEST(DetectionOutputLayerForward, MayWriteOverItsOwnLocations) {
  Detector detector({kBoxA, kBoxC}, 1, {0.9F, 0.8F, 0.7F, 0.6F});
  const std::vector<float> locations{1, 1, 1, 1, 2, 2, 2, 2, 3, 3, 3, 3, 4, 4, 4, 4};
  assign(detector.locations(), locations.data());
  const auto apart = detector.run();
  detector.layer.outputs[0] = &detector.locations();
  const auto over = detector.run();
  ASSERT_EQ(over.size(), 2U);  // 16 floats are two rows
  EXPECT_EQ(over[0], apart[0]);
  EXPECT_EQ(over[1], apart[1]);
}

TEST(DetectionOutputLayerForward, NothingIsLeftOverFromTheRunBefore) {
  Detector detector({kBoxA, kBoxB, kBoxC}, 2, {0.9F, 0.8F, 0.7F, 0.6F, 0.5F, 0.4F});
  detector.run();
  const std::vector<float> scores{0, 0, 0.2F, 0, 0, 0.3F};
  assign(*detector.layer.inputs[1], scores.data());
  EXPECT_EQ(detector.run(), (Rows{row(0, 0, 0.2F, kBoxB), row(0, 1, 0.3F, kBoxC)}));
}

TEST(DetectionOutputLayerForward, AgreesBitForBitWithTheReference) {
  std::mt19937 random(56);
  const auto draw = [&](int low, int high) {
    return std::uniform_int_distribution<int>(low, high)(random);
  };
  const auto draw_floats = [&](std::size_t n, float low, float high) {
    std::vector<float> values(n);
    for (float& value : values) value = std::uniform_real_distribution<float>(low, high)(random);
    return values;
  };
  const auto size = [](int value) { return static_cast<std::size_t>(value); };
  for (int i = 0; i < 600; ++i) {
    reference::Detection d{draw(1, 3),
                           draw(1, 60),
                           draw(1, 6),
                           1,
                           draw(0, 1) == 0,
                           draw(0, 4),
                           draw(0, 1) == 0,
                           draw(-1, 30),
                           draw(-1, 40),
                           draw(-1, 6),
                           0.2F,
                           0.0F,
                           0.0F};
    d.loc_classes = d.share_location ? draw(1, 2) : d.classes + draw(0, 1);
    d.nms_threshold = draw_floats(1, -0.1F, 1)[0];
    d.eta = draw_floats(1, 0, 1.3F)[0];
    auto scores = draw_floats(size(d.images * d.priors * d.classes), 0, 1);
    // Every other case has many equal scores.
    for (float& score : scores) score = i % 2 == 0 ? score : std::floor(score * 8) / 8;
    auto priors = draw_floats(size(d.priors) * 8, 0, 1);
    for (std::size_t p = 0; p < size(d.priors) && i % 3 != 0; ++p) {  // some stay inside out
      priors[p * 4 + 2] = priors[p * 4] + 0.5F;
      priors[p * 4 + 3] = priors[p * 4 + 1] + 0.5F;
    }
    const auto locations = draw_floats(size(d.images * d.priors * d.loc_classes) * 4, -0.2F, 0.2F);
    const std::size_t rows = size(draw(1, 3) * std::max(d.keep_top_k, 5));

    DetectionOutputLayer layer;
    layer.num_classes = static_cast<std::uint32_t>(d.classes);
    layer.num_priors = d.priors;
    layer.share_location = d.share_location;
    layer.num_loc_classes = static_cast<std::uint32_t>(d.loc_classes);
    layer.code_type = static_cast<std::uint32_t>(d.code_type);
    layer.variance_encoded_in_target = d.variance_encoded;
    layer.keep_top_k = d.keep_top_k;
    layer.top_k = d.top_k;
    layer.background_label_id = d.background;
    layer.confidence_threshold = d.confidence_threshold;
    layer.nms_threshold = d.nms_threshold;
    layer.eta = d.eta;
    LayerRig rig(layer);
    const auto images = static_cast<std::uint32_t>(d.images);
    rig.add_input({images, 1, 1, static_cast<std::uint32_t>(locations.size()) / images}, locations);
    rig.add_input({images, 1, 1, static_cast<std::uint32_t>(scores.size()) / images}, scores);
    rig.add_input({1, 2, 1, static_cast<std::uint32_t>(priors.size()) / 2}, priors);
    rig.add_output({1, 1, static_cast<std::uint32_t>(rows), 7});
    rig.set_up();
    ASSERT_TRUE(fits(layer)) << i;
    const auto expected = reference::detection_output(d, locations, scores, priors, rows * 7);
    EXPECT_EQ(bits_of(rig.run()), bits_of(expected)) << "case " << i;
  }
}

TEST(DetectionOutputLayerFits, RefusesInputsThatAreTooSmallOrMissing) {
  Detector detector({kBoxA, kBoxC}, 3, std::vector<float>(12, 0.5F));  // two images
  DetectionOutputLayer& layer = detector.layer;
  EXPECT_TRUE(fits(layer));
  for (std::size_t i = 0; i < 3; ++i) {
    --layer.inputs[i]->count;
    EXPECT_FALSE(fits(layer)) << i;
    ++layer.inputs[i]->count;
  }
  layer.inputs[0]->dims[0] = 3;  // more images than the inputs hold
  EXPECT_FALSE(fits(layer));
  layer.inputs[0]->dims[0] = 2;
  EXPECT_TRUE(fits(layer));
  Blob* priors = layer.inputs.back();
  layer.inputs.pop_back();
  EXPECT_FALSE(fits(layer));
  layer.inputs.push_back(priors);
}

TEST(DetectionOutputLayerFits, RefusesHostileNumbers) {
  Detector detector({kBoxA, kBoxC}, 3, std::vector<float>(6, 0.5F));
  DetectionOutputLayer& layer = detector.layer;
  for (const std::uint32_t number : {4U, 0x40000000U, 0x80000000U, 0xFFFFFFFFU}) {
    layer.num_classes = number;
    EXPECT_FALSE(fits(layer)) << number;
    layer.num_classes = 3;
    layer.num_loc_classes = number;
    EXPECT_FALSE(fits(layer)) << number;
    layer.num_loc_classes = 1;
    layer.num_priors = static_cast<std::int32_t>(number);
    EXPECT_FALSE(fits(layer)) << number;
    layer.num_priors = 2;
  }
  layer.num_loc_classes = 0;
  EXPECT_FALSE(fits(layer));
  EXPECT_EQ(detector.rig.run(), std::vector<float>(70, 0.0F));
}

TEST(DetectionOutputLayerFits, EveryClassButTheBackgroundNeedsLocations) {
  Detector detector({kBoxA}, 1, std::vector<float>(3, 0.5F));
  DetectionOutputLayer& layer = detector.layer;
  layer.inputs[0]->dims[0] = 1;
  layer.num_classes = 3;
  layer.share_location = false;
  layer.num_loc_classes = 2;
  EXPECT_FALSE(fits(layer));
  layer.background_label_id = 2;
  EXPECT_TRUE(fits(layer));
  layer.background_label_id = 0;
  EXPECT_FALSE(fits(layer));
}

TEST(DetectionOutputLayerForward, SurvivesEveryNumberThatAFileCanHold) {
  for (const std::int32_t number : {INT32_MIN, -2, -1, 0, 1, 2, INT32_MAX}) {
    Detector detector({kBoxA, kBoxC}, 3, std::vector<float>(6, 0.5F));
    detector.layer.keep_top_k = number;
    detector.layer.top_k = number;
    detector.layer.background_label_id = number;
    EXPECT_LE(detector.run().size(), 6U);
    detector.layer.num_priors = 0;
    EXPECT_TRUE(detector.run().empty());
    detector.layer.num_classes = 0;
    EXPECT_TRUE(detector.run().empty());
  }
}

TEST(DetectionOutputLayerForward, FollowsItsInputsBatch) {
  Detector detector({kBoxA}, 1, {0.5F});
  const std::vector<float> scores{0.5F, 0.6F}, locations(8);
  reshape(detector.locations(), *make_blob({2, 1, 1, 4}));
  reshape(*detector.layer.inputs[1], *make_blob({2, 1, 1, 1}));
  assign(detector.locations(), locations.data());
  assign(*detector.layer.inputs[1], scores.data());
  detector.layer.Reshape();
  EXPECT_EQ(detector.run(), (Rows{row(0, 0, 0.5F, kBoxA), row(1, 0, 0.6F, kBoxA)}));
}

}  // namespace
}  // namespace ravu::test
