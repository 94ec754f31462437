// Fully connected: both weight orders, inputs of both formats, batches, flat weight shapes.
#include <gtest/gtest.h>

#include "support/Graph.h"
#include "support/reference.h"

namespace ravu::opencl::test {
namespace {

cldnn_fully_connected_desc neurons(Graph& graph, const char* bias) {
  auto desc =
      graph.describe<cldnn_fully_connected_desc>(cldnn_fully_connected_type_id, "out", {"in"});
  desc.weights = "weights";
  desc.bias = bias;
  return desc;
}

void expect_neurons(const Dims& dims, int outputs, int32_t format, int32_t weight_format,
                    bool with_bias, cldnn_engine engine) {
  SCOPED_TRACE(testing::Message() << dims.b << "x" << dims.f << "x" << dims.y << "x" << dims.x
                                  << " to " << outputs << " formats " << format << ", "
                                  << weight_format);
  const Values in = random_values(dims, 1);
  const Values weights = random_values({outputs, dims.f, dims.y, dims.x}, 2);
  const Values biases = random_values({1, outputs, 1, 1}, 3);
  Graph graph(engine);
  graph.input("in", in, format);
  graph.data("weights", weights, weight_format);
  graph.data("biases", biases);
  graph.add(neurons(graph, with_bias ? "biases" : "").header);
  expect_near(graph.result("out"),
              fully_connected(in, weights, with_bias ? biases.data : std::vector<float>{}));
  const bool planar = format == CLDNN_FORMAT_BFYX && dims.b == 1;
  EXPECT_EQ(graph.result_layout("out").format, planar ? CLDNN_FORMAT_BFYX : CLDNN_FORMAT_YXFB);
}

TEST(FullyConnected, AgreesWithTheNaiveOneForAllFormatsAndBatches) {
  for (const Dims& dims : {Dims{1, 3, 4, 5}, Dims{2, 7, 1, 1}, Dims{3, 2, 3, 3}, Dims{1, 300, 1, 1},
                           Dims{9, 5, 2, 1}}) {
    for (int outputs : {1, 10, 33}) {
      for (int32_t format : {CLDNN_FORMAT_YXFB, CLDNN_FORMAT_BFYX}) {
        for (int32_t weight_format : {CLDNN_FORMAT_YXFB, CLDNN_FORMAT_BFYX}) {
          expect_neurons(dims, outputs, format, weight_format, outputs != 10, shared_engine());
        }
      }
    }
  }
}

TEST(FullyConnected, TheTilesOfGpusAgreeWithTheNaiveOne) {
  expect_neurons({17, 6, 3, 3}, 70, CLDNN_FORMAT_YXFB, CLDNN_FORMAT_YXFB, true,
                 shared_engine("product_local"));
}

// One image leaves most of a tile of pixels empty, which must read nothing of its own. Few values
// are not zero, so that a million of them can be added exactly.
TEST(FullyConnected, EmptyPlacesOfATileReadNothingHoweverLongTheRows) {
  Values in = zeros({1, 4096, 16, 16});
  in.at(0, 0, 0, 0) = 2;
  in.at(0, 4095, 15, 15) = -1;
  const Values weights = random_values({2, 4096, 16, 16}, 2);
  Graph graph;
  graph.input("in", in);
  graph.data("weights", weights);
  graph.add(neurons(graph, "").header);
  expect_near(graph.result("out"), fully_connected(in, weights, {}));
}

TEST(FullyConnected, OnlyTheProductOfTheWeightsSizesHasToFit) {
  const Values in = random_values({2, 4, 3, 3}, 1);
  // 36 rows of 5 values, described as 4 features of 9 x 1.
  const Values flat = random_values({5, 4, 1, 9}, 2);
  Graph graph;
  graph.input("in", in);
  graph.data("weights", flat);
  graph.add(neurons(graph, "").header);
  const std::vector<float> rows = to_memory(flat, CLDNN_FORMAT_YXFB);
  Values weights = zeros({5, 4, 3, 3});
  for (int o = 0; o < 5; ++o) {
    for (int k = 0; k < 36; ++k) {
      weights.at(o, k % 4, k / 4 / 3, k / 4 % 3) = rows[static_cast<size_t>(k * 5 + o)];
    }
  }
  expect_near(graph.result("out"), fully_connected(in, weights, {}));
}

TEST(FullyConnected, ItsOwnActivationIsALeakyRectifier) {
  const Values in = random_values({1, 4, 3, 3}, 1);
  const Values weights = random_values({5, 4, 3, 3}, 2);
  Graph graph;
  graph.input("in", in);
  graph.data("weights", weights);
  cldnn_fully_connected_desc desc = neurons(graph, "");
  desc.with_activation = 1;
  desc.activation_slope = 0.1f;
  graph.add(desc.header);
  expect_near(graph.result("out"), rectify(fully_connected(in, weights, {}), {0.1f}));
}

TEST(FullyConnected, RefusesWeightsThatDoNotFitWhenBuilt) {
  Graph graph;
  graph.input("in", random_values({1, 4, 3, 3}, 1));
  graph.data("weights", random_values({5, 4, 3, 2}, 2));
  graph.add(neurons(graph, "").header);
  EXPECT_EQ(graph.run(), Stage::kBuild);
  Graph other;
  other.input("in", random_values({1, 4, 3, 3}, 1));
  other.data("weights", random_values({5, 4, 3, 3}, 2), CLDNN_FORMAT_BYXF);
  other.add(neurons(other, "").header);
  EXPECT_EQ(other.run(), Stage::kBuild);
}

TEST(FullyConnected, RefusesBiasesOfAnotherCountWhenAllocated) {
  Graph graph;
  graph.input("in", random_values({1, 4, 3, 3}, 1));
  graph.data("weights", random_values({5, 4, 3, 3}, 2));
  graph.data("biases", zeros({1, 1, 1, 4}));
  graph.add(neurons(graph, "biases").header);
  EXPECT_EQ(graph.run(), Stage::kAllocate);
}

}  // namespace
}  // namespace ravu::opencl::test
