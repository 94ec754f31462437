// Detection output: decoding, suppression, the limit, the table's rows. Boxes are chosen so that
// the numbers can be worked out by hand.
#include <gtest/gtest.h>

#include <cmath>

#include "support/Graph.h"

namespace ravu::opencl::test {
namespace {

using Row = std::vector<float>;

// Two classes beside the background unless a test says otherwise; variances are 0.1, 0.1, 0.2, 0.2.
struct Detector {
  std::vector<float> locations;
  std::vector<float> scores;
  std::vector<float> boxes;
  int images = 1;
  cldnn_detection_output_desc desc{};

  Detector() {
    desc.class_count = 3;
    desc.keep_top_k = 4;
    desc.share_location = 1;
    desc.background_label = 0;
    desc.nms_threshold = 0.5f;
    desc.top_k = -1;
    desc.eta = 1;
    desc.code_type = CLDNN_BOX_CORNER;
    desc.confidence_threshold = 0.1f;
  }

  std::vector<float> priors() const {
    std::vector<float> all = boxes;
    for (size_t i = 0; i < boxes.size() / 4; ++i) {
      all.insert(all.end(), {0.1f, 0.1f, 0.2f, 0.2f});
    }
    return all;
  }

  Stage add_to(Graph& graph) const {
    const auto per_image = [&](const std::vector<float>& values) {
      return listed({images, static_cast<int>(values.size()) / images, 1, 1}, values);
    };
    graph.input("location", per_image(locations), CLDNN_FORMAT_BFYX);
    graph.input("confidence", per_image(scores), CLDNN_FORMAT_BFYX);
    graph.input("prior", listed({1, 2, static_cast<int>(boxes.size()), 1}, priors()),
                CLDNN_FORMAT_BFYX);
    auto made = graph.describe<cldnn_detection_output_desc>(cldnn_detection_output_type_id, "out",
                                                            {"location", "confidence", "prior"});
    const cldnn_primitive header = made.header;
    made = desc;
    made.header = header;
    graph.add(made.header);
    return graph.run();
  }

  std::vector<Row> rows() const {
    Graph graph;
    EXPECT_EQ(add_to(graph), Stage::kDone) << graph.text();
    const Values out = graph.result("out");
    EXPECT_EQ(out.dims, (Dims{1, 1, static_cast<int>(desc.keep_top_k) * images, 7}));
    std::vector<Row> rows;
    for (size_t i = 0; i < out.data.size(); i += 7) {
      rows.emplace_back(out.data.begin() + static_cast<ptrdiff_t>(i),
                        out.data.begin() + static_cast<ptrdiff_t>(i + 7));
    }
    return rows;
  }
};

const Row kFiller = {-1, 0, 0, 0, 0, 0, 0};

void expect_row(const Row& got, const Row& expected) {
  for (size_t i = 0; i < 7; ++i) EXPECT_NEAR(got[i], expected[i], 1e-6) << "value " << i;
}

// Two boxes far apart, all deltas zero.
Detector two_boxes() {
  Detector detector;
  detector.boxes = {0.1f, 0.1f, 0.2f, 0.2f, 0.6f, 0.6f, 0.8f, 0.8f};
  detector.locations.assign(8, 0);
  detector.scores = {0.1f, 0.2f, 0.7f, 0.1f, 0.9f, 0.05f};
  return detector;
}

TEST(DetectionOutput, RowsStandClassByClassThenFillersFollow) {
  const std::vector<Row> rows = two_boxes().rows();
  expect_row(rows[0], {0, 1, 0.9f, 0.6f, 0.6f, 0.8f, 0.8f});
  expect_row(rows[1], {0, 1, 0.2f, 0.1f, 0.1f, 0.2f, 0.2f});
  expect_row(rows[2], {0, 2, 0.7f, 0.1f, 0.1f, 0.2f, 0.2f});
  expect_row(rows[3], kFiller);
}

TEST(DetectionOutput, EveryImageHasItsOwnRowsAndFillers) {
  Detector detector = two_boxes();
  detector.images = 2;
  detector.locations.resize(16);
  const std::vector<float> second = {0.9f, 0, 0, 0.1f, 0, 0.8f};
  detector.scores.insert(detector.scores.end(), second.begin(), second.end());
  const std::vector<Row> rows = detector.rows();
  expect_row(rows[3], kFiller);
  expect_row(rows[4], {1, 2, 0.8f, 0.6f, 0.6f, 0.8f, 0.8f});
  for (size_t i = 5; i < 8; ++i) expect_row(rows[i], kFiller);
}

TEST(DetectionOutput, OnlyScoresAboveTheThresholdCount) {
  Detector detector = two_boxes();
  detector.desc.confidence_threshold = 0.7f;
  const std::vector<Row> rows = detector.rows();
  expect_row(rows[0], {0, 1, 0.9f, 0.6f, 0.6f, 0.8f, 0.8f});
  expect_row(rows[1], kFiller);
}

TEST(DetectionOutput, TheCodesDecodeCornersCentresAndSizes) {
  Detector detector;
  detector.boxes = {0.2f, 0.2f, 0.6f, 0.4f};  // 0.4 wide, 0.2 high, centre (0.4, 0.3)
  detector.locations = {1, 2, 0.5f, -1};
  detector.scores = {0, 0.9f, 0};
  detector.desc.keep_top_k = 1;

  detector.desc.code_type = CLDNN_BOX_CORNER;
  expect_row(detector.rows()[0], {0, 1, 0.9f, 0.3f, 0.4f, 0.7f, 0.2f});

  detector.desc.code_type = CLDNN_BOX_CENTER_SIZE;
  const float x = 0.4f + 0.1f * 1 * 0.4f;
  const float y = 0.3f + 0.1f * 2 * 0.2f;
  const float half_width = std::exp(0.1f) * 0.2f;
  const float half_height = std::exp(-0.2f) * 0.1f;
  expect_row(detector.rows()[0],
             {0, 1, 0.9f, x - half_width, y - half_height, x + half_width, y + half_height});

  detector.desc.code_type = CLDNN_BOX_CORNER_SIZE;
  expect_row(detector.rows()[0], {0, 1, 0.9f, 0.2f + 0.1f * 0.4f, 0.2f + 0.2f * 0.2f,
                                  0.6f + 0.1f * 0.4f, 0.4f - 0.2f * 0.2f});

  detector.desc.code_type = 7;
  expect_row(detector.rows()[0], {0, 1, 0.9f, 0, 0, 0, 0});
}

TEST(DetectionOutput, VariancesEncodedInTheTargetAreNotApplied) {
  Detector detector;
  detector.boxes = {0.2f, 0.2f, 0.6f, 0.4f};
  detector.locations = {0.1f, 0.1f, 0.1f, 0.1f};
  detector.scores = {0, 0.9f, 0};
  detector.desc.variance_encoded_in_target = 1;
  expect_row(detector.rows()[0], {0, 1, 0.9f, 0.3f, 0.3f, 0.7f, 0.5f});
}

// Three boxes of one class: the second overlaps the first by 3/5, the third by 1/3.
Detector overlapping() {
  Detector detector;
  detector.boxes = {0, 0, 0.4f, 0.4f, 0.1f, 0, 0.5f, 0.4f, 0.2f, 0, 0.6f, 0.4f};
  detector.locations.assign(12, 0);
  detector.scores = {0, 0.9f, 0, 0, 0.8f, 0, 0, 0.7f, 0};
  return detector;
}

TEST(DetectionOutput, SuppressesBoxesThatOverlapAKeptOne) {
  const std::vector<Row> rows = overlapping().rows();
  EXPECT_FLOAT_EQ(rows[0][2], 0.9f);
  EXPECT_FLOAT_EQ(rows[1][2], 0.7f);
  expect_row(rows[2], kFiller);
}

TEST(DetectionOutput, EtaLowersAThresholdAboveOneHalfAfterEachKeptBox) {
  Detector detector = overlapping();
  detector.desc.nms_threshold = 0.65f;
  EXPECT_FLOAT_EQ(detector.rows()[1][2], 0.8f);
  detector.desc.eta = 0.5f;  // 0.65, then 0.325
  const std::vector<Row> rows = detector.rows();
  EXPECT_FLOAT_EQ(rows[0][2], 0.9f);
  expect_row(rows[1], kFiller);
  detector.desc.nms_threshold = 0.4f;  // not above one half: stays
  EXPECT_FLOAT_EQ(detector.rows()[1][2], 0.7f);
}

TEST(DetectionOutput, TopKCutsTheCandidatesBeforeSuppression) {
  Detector detector = overlapping();
  detector.desc.top_k = 2;
  expect_row(detector.rows()[1], kFiller);
  detector.desc.top_k = 0;
  expect_row(detector.rows()[0], kFiller);
}

TEST(DetectionOutput, KeepTopKKeepsTheBestScoresOfAllClasses) {
  Detector detector = two_boxes();
  detector.desc.keep_top_k = 2;
  const std::vector<Row> rows = detector.rows();
  EXPECT_FLOAT_EQ(rows[0][2], 0.9f);
  EXPECT_FLOAT_EQ(rows[1][1], 2);
  EXPECT_FLOAT_EQ(rows[1][2], 0.7f);
}

TEST(DetectionOutput, EveryClassCanHaveLocationsOfItsOwn) {
  Detector detector;
  detector.boxes = {0.2f, 0.2f, 0.6f, 0.4f};
  detector.locations = {9, 9, 9, 9, 1, 0, 0, 0, 2, 0, 0, 0};
  detector.scores = {0, 0.9f, 0.8f};
  detector.desc.share_location = 0;
  const std::vector<Row> rows = detector.rows();
  EXPECT_FLOAT_EQ(rows[0][3], 0.3f);
  EXPECT_FLOAT_EQ(rows[1][3], 0.4f);
}

TEST(DetectionOutput, ABackgroundLabelOutsideTheClassesLeavesNoneOut) {
  Detector detector = two_boxes();
  detector.desc.background_label = -1;
  detector.scores = {0.5f, 0, 0, 0, 0, 0};
  EXPECT_FLOAT_EQ(detector.rows()[0][1], 0);
}

TEST(DetectionOutput, ScoresThatAreNoNumbersAreNotDetections) {
  Detector detector = two_boxes();
  for (float& score : detector.scores) score = std::nanf("");
  expect_row(detector.rows()[0], kFiller);
}

TEST(DetectionOutput, RefusesShapesThatDoNotFitTogetherWhenAllocated) {
  Detector detector = two_boxes();
  detector.scores.pop_back();
  Graph graph;
  EXPECT_EQ(detector.add_to(graph), Stage::kAllocate);
  Detector flat = two_boxes();
  flat.desc.class_count = 2;
  Graph other;
  EXPECT_EQ(flat.add_to(other), Stage::kAllocate);
}

TEST(DetectionOutput, KeepingAllIsOutOfResources) {
  Detector detector = two_boxes();
  detector.desc.keep_top_k = static_cast<uint32_t>(-1);
  Graph graph;
  EXPECT_EQ(detector.add_to(graph), Stage::kAllocate);
  EXPECT_EQ(graph.status(), CLDNN_OUT_OF_RESOURCES);
}

TEST(DetectionOutput, RefusesInterleavedInputsWhenBuilt) {
  Graph graph;
  for (const char* id : {"location", "confidence", "prior"}) graph.input(id, zeros({1, 4, 1, 1}));
  auto desc = graph.describe<cldnn_detection_output_desc>(cldnn_detection_output_type_id, "out",
                                                          {"location", "confidence", "prior"});
  desc.class_count = 2;
  desc.keep_top_k = 1;
  graph.add(desc.header);
  EXPECT_EQ(graph.run(), Stage::kBuild);
}

}  // namespace
}  // namespace ravu::opencl::test
