// Softmax over each of its groups, and the relabelling of single pixels.
#include <gtest/gtest.h>

#include "support/Graph.h"
#include "support/reference.h"

namespace ravu::opencl::test {
namespace {

cldnn_softmax_desc probabilities(Graph& graph, int dimension) {
  auto desc = graph.describe<cldnn_softmax_desc>(cldnn_softmax_type_id, "out", {"in"});
  desc.dimension = dimension;
  return desc;
}

TEST(Softmax, GroupsSumToOneOverEveryDimension) {
  for (const Dims& dims : {Dims{1, 10, 3, 4}, Dims{2, 5, 4, 3}, Dims{3, 2, 7, 2}}) {
    for (int32_t format : {CLDNN_FORMAT_YXFB, CLDNN_FORMAT_BFYX}) {
      for (int dimension = 1; dimension <= 6; ++dimension) {
        SCOPED_TRACE(dimension);
        Values in = random_values(dims, 1);
        for (float& value : in.data) value *= 20;
        Graph graph;
        graph.input("in", in, format);
        graph.add(probabilities(graph, dimension).header);
        const bool over_f = dimension == 1 || dimension >= 5;
        const bool over_x = dimension == 2 || dimension >= 4;
        const bool over_y = dimension >= 3;
        expect_near(graph.result("out"), softmax(in, dimension == 6, over_f, over_y, over_x));
      }
    }
  }
}

TEST(Softmax, ASinglePixelIsRelabelledToLieAlongX) {
  for (int32_t format : {CLDNN_FORMAT_YXFB, CLDNN_FORMAT_BFYX}) {
    for (int dimension : {1, 5}) {
      const Values in = random_values({2, 7, 1, 1}, 1);
      Graph graph;
      graph.input("in", in, format);
      graph.add(probabilities(graph, dimension).header);
      Values expected = softmax(in, false, true, true, true);
      expected.dims = {2, 1, 1, 7};
      expect_near(graph.result("out"), expected);
    }
  }
}

TEST(Softmax, LargeScoresDoNotOverflow) {
  Graph graph;
  graph.input("in", listed({1, 2, 1, 1}, {1000, 1000}));
  graph.add(probabilities(graph, 5).header);
  expect_near(graph.result("out"), along_x({0.5f, 0.5f}));
}

TEST(Softmax, RefusesDimensionsThatDoNotExistWhenBuilt) {
  for (int dimension : {0, 7, -1}) {
    Graph graph;
    graph.input("in", zeros({1, 2, 2, 2}));
    graph.add(probabilities(graph, dimension).header);
    EXPECT_EQ(graph.run(), Stage::kBuild);
  }
}

}  // namespace
}  // namespace ravu::opencl::test
