// Prior boxes: numbers worked out by hand, and the lists that are refused.
#include <gtest/gtest.h>

#include <cmath>

#include "support/Graph.h"

namespace ravu::opencl::test {
namespace {

struct Lists {
  std::vector<float> mins = {10};
  std::vector<float> maxs = {};
  std::vector<float> ratios = {1};
  std::vector<float> variances = {0.1f, 0.2f, 0.3f, 0.4f};
};

cldnn_float_list list(const std::vector<float>& values) {
  return {values.data(), values.size()};
}

cldnn_prior_box_desc priors(Graph& graph, const Lists& lists) {
  auto desc = graph.describe<cldnn_prior_box_desc>(cldnn_prior_box_type_id, "out", {"in"});
  desc.image_size = tensor(1, 1, 100, 50);
  desc.min_sizes = list(lists.mins);
  desc.max_sizes = list(lists.maxs);
  desc.aspect_ratios = list(lists.ratios);
  desc.variances = list(lists.variances);
  desc.offset = 0.5f;
  return desc;
}

TEST(PriorBox, OneSquarePerCellInReadingOrderThenTheVariances) {
  Graph graph;
  graph.input("in", zeros({1, 3, 1, 2}));
  const Lists lists;
  graph.add(priors(graph, lists).header);
  // Two cells of 50 x 50 pixels with centres (25, 25) and (75, 25).
  const std::vector<float> expected = {0.20f, 0.4f, 0.30f, 0.6f, 0.70f, 0.4f, 0.80f, 0.6f,
                                       0.1f,  0.2f, 0.3f,  0.4f, 0.1f,  0.2f, 0.3f,  0.4f};
  expect_near(graph.result("out"), listed({1, 2, 8, 1}, expected));
  EXPECT_EQ(graph.result_layout("out").format, CLDNN_FORMAT_BFYX);
}

TEST(PriorBox, BoxesOfACellAreTheSquareTheMiddleSquareAndTheRatios) {
  Graph graph;
  graph.input("in", zeros({1, 3, 1, 1}), CLDNN_FORMAT_BFYX);
  std::vector<float> expected;
  for (const auto& [width, height] : {std::pair{10.f, 10.f},
                                      {20.f, 20.f},
                                      {20.f, 5.f},
                                      {5.f, 20.f},
                                      {20.f, 20.f},
                                      {30.f, 30.f},
                                      {40.f, 10.f},
                                      {10.f, 40.f}}) {
    expected.insert(expected.end(), {(50 - width / 2) / 100, (25 - height / 2) / 50,
                                     (50 + width / 2) / 100, (25 + height / 2) / 50});
  }
  expected.resize(64, 0.5f);
  const Lists lists = {
      .mins = {10, 20}, .maxs = {40, 45}, .ratios = {1, 4, 0.25f}, .variances = {0.5f}};
  graph.add(priors(graph, lists).header);
  expect_near(graph.result("out"), listed({1, 2, 32, 1}, expected));
}

TEST(PriorBox, GivenStepsReplaceTheCells) {
  Graph graph;
  graph.input("in", zeros({1, 1, 1, 2}));
  const Lists lists;
  cldnn_prior_box_desc desc = priors(graph, lists);
  desc.step_width = 20;
  desc.step_height = 30;
  graph.add(desc.header);
  const Values out = graph.result("out");
  EXPECT_FLOAT_EQ(out.data[4], (1.5f * 20 - 5) / 100);
  EXPECT_FLOAT_EQ(out.data[1], (0.5f * 30 - 5) / 50);
}

TEST(PriorBox, OneStepOfZeroReplacesBoth) {
  Graph graph;
  graph.input("in", zeros({1, 1, 1, 2}));
  const Lists lists;
  cldnn_prior_box_desc desc = priors(graph, lists);
  desc.step_width = 20;
  graph.add(desc.header);
  EXPECT_FLOAT_EQ(graph.result("out").data[4], 0.70f);
}

TEST(PriorBox, ClipLimitsBoxesToTheImage) {
  for (uint32_t clip : {0u, 1u}) {
    Graph graph;
    graph.input("in", zeros({1, 1, 1, 1}));
    const Lists lists = {.mins = {200}};
    cldnn_prior_box_desc desc = priors(graph, lists);
    desc.clip = clip;
    graph.add(desc.header);
    EXPECT_FLOAT_EQ(graph.result("out").data[0], clip == 1 ? 0.0f : -0.5f);
  }
}

TEST(PriorBox, RefusesListsThatDoNotMakeBoxes) {
  const std::vector<Lists> bad = {
      {.mins = {0}},
      {.mins = {-1}},
      {.mins = {std::nanf("")}},
      {.mins = {10}, .maxs = {10}},
      {.mins = {10}, .maxs = {20, 30}},
      {.ratios = {2}},
      {.ratios = {1, 2, 1}},
      {.variances = {}},
      {.variances = {0.1f, 0.2f}},
      {.variances = {0}},
  };
  for (const Lists& lists : bad) {
    Graph graph;
    graph.input("in", zeros({1, 1, 1, 1}));
    graph.add(priors(graph, lists).header);
    EXPECT_LT(graph.run(), Stage::kAllocate);
    EXPECT_EQ(graph.status(), CLDNN_ERROR);
  }
}

TEST(PriorBox, RefusesImagesWithoutPixelsAndNegativeSteps) {
  const Lists lists;
  for (int spoiled = 0; spoiled < 3; ++spoiled) {
    Graph graph;
    graph.input("in", zeros({1, 1, 1, 1}));
    cldnn_prior_box_desc desc = priors(graph, lists);
    if (spoiled == 0) desc.image_size.sizes[CLDNN_X] = 0;
    if (spoiled == 1) desc.image_size.sizes[CLDNN_Y] = -3;
    if (spoiled == 2) desc.step_height = -1;
    graph.add(desc.header);
    EXPECT_LT(graph.run(), Stage::kAllocate);
  }
}

TEST(PriorBox, NoSizesAtAllAreAnEmptyOutput) {
  Graph graph;
  graph.input("in", zeros({1, 1, 1, 1}));
  const Lists lists = {.mins = {}, .ratios = {}};
  graph.add(priors(graph, lists).header);
  EXPECT_EQ(graph.run(), Stage::kAllocate);
  EXPECT_EQ(graph.status(), CLDNN_OUT_OF_RESOURCES);
}

}  // namespace
}  // namespace ravu::opencl::test
