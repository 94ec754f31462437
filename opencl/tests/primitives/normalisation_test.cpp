// Local response normalisation and L2 normalisation.
#include <gtest/gtest.h>

#include <cmath>

#include "support/Graph.h"
#include "support/reference.h"

namespace ravu::opencl::test {
namespace {

const int32_t kFormats[] = {CLDNN_FORMAT_YXFB, CLDNN_FORMAT_BFYX};

cldnn_lrn_desc lrn(Graph& graph, uint32_t size, int region) {
  auto desc = graph.describe<cldnn_lrn_desc>(cldnn_lrn_type_id, "out", {"in"});
  desc.size = size;
  desc.k = 1.5f;
  desc.alpha = 0.8f;
  desc.beta = 0.75f;
  desc.region = region;
  return desc;
}

TEST(Lrn, AcrossFeaturesAgreesWithTheNaiveOneForOddAndEvenSizes) {
  for (const Dims& dims : {Dims{1, 1, 1, 1}, Dims{1, 20, 3, 4}, Dims{2, 7, 4, 3}}) {
    for (uint32_t size : {1u, 2u, 3u, 4u, 5u, 100u}) {
      for (int32_t format : kFormats) {
        const Values in = random_values(dims, 1);
        Graph graph;
        graph.input("in", in, format);
        graph.add(lrn(graph, size, CLDNN_LRN_ACROSS_CHANNELS).header);
        expect_near(graph.result("out"), lrn_across(in, static_cast<int>(size), 1.5f, 0.8f, 0.75f));
      }
    }
  }
}

TEST(Lrn, WithinAFeatureAgreesWithTheNaiveOneForOddAndEvenSizes) {
  for (const Dims& dims : {Dims{1, 1, 1, 1}, Dims{1, 20, 3, 4}, Dims{2, 7, 4, 3}}) {
    for (uint32_t size : {1u, 2u, 3u, 4u, 9u}) {
      for (int32_t format : kFormats) {
        const Values in = random_values(dims, 1);
        Graph graph;
        graph.input("in", in, format);
        graph.add(lrn(graph, size, CLDNN_LRN_WITHIN_CHANNEL).header);
        expect_near(graph.result("out"), lrn_within(in, static_cast<int>(size), 1.5f, 0.8f, 0.75f));
      }
    }
  }
}

TEST(Lrn, RefusesSizesAndRegionsThatDoNotExistWhenBuilt) {
  for (const auto& [size, region] : {std::pair<uint32_t, int>{0, 0}, {3, 2}, {4294967295u, 0}}) {
    Graph graph;
    graph.input("in", random_values({1, 4, 3, 3}, 1));
    graph.add(lrn(graph, size, region).header);
    EXPECT_EQ(graph.run(), Stage::kBuild);
  }
}

cldnn_normalize_desc normalisation(Graph& graph, bool across_spatial, float epsilon) {
  auto desc = graph.describe<cldnn_normalize_desc>(cldnn_normalize_type_id, "out", {"in"});
  desc.scale_input = "scales";
  desc.across_spatial = across_spatial ? 1 : 0;
  desc.epsilon = epsilon;
  return desc;
}

TEST(Normalize, DividesByTheNormOfAPixelOrAnImage) {
  for (const Dims& dims :
       {Dims{1, 1, 1, 1}, Dims{1, 20, 3, 4}, Dims{2, 7, 4, 3}, Dims{3, 2, 9, 11}}) {
    for (int32_t format : kFormats) {
      for (bool across : {false, true}) {
        for (int scale_count : {1, dims.f}) {
          const Values in = random_values(dims, 1);
          const Values scales = random_values({1, 1, 1, scale_count}, 2);
          Graph graph;
          graph.input("in", in, format);
          graph.data("scales", scales);
          graph.add(normalisation(graph, across, 0.01f).header);
          expect_near(graph.result("out"), normalize(in, scales.data, across, 0.01f));
        }
      }
    }
  }
}

TEST(Normalize, AnAllZeroPixelWithoutEpsilonIsNotANumber) {
  Graph graph;
  graph.input("in", zeros({1, 3, 1, 1}));
  graph.data("scales", along_x({1}));
  graph.add(normalisation(graph, false, 0).header);
  EXPECT_TRUE(std::isnan(graph.result("out").data[0]));
}

TEST(Normalize, RefusesScalesThatDoNotLieAlongXWhenAllocated) {
  for (const Dims& dims : {Dims{1, 4, 1, 1}, Dims{1, 1, 1, 3}, Dims{1, 1, 4, 1}}) {
    Graph graph;
    graph.input("in", random_values({1, 4, 2, 2}, 1));
    graph.data("scales", random_values(dims, 2));
    graph.add(normalisation(graph, false, 0).header);
    EXPECT_EQ(graph.run(), Stage::kAllocate);
  }
}

}  // namespace
}  // namespace ravu::opencl::test
