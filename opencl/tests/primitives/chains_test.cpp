// What stands behind a product is computed along with it where nobody else reads the result in
// between: the numbers are those of the single primitives, and nothing is taken in that must not
// be.
#include <gtest/gtest.h>

#include <cmath>

#include "support/Graph.h"
#include "support/reference.h"

namespace ravu::opencl::test {
namespace {

// A 3 x 3 convolution "conv" of "in", to which tests append.
struct Chain {
  Graph graph;
  ConvolutionCase s;
  Values in;
  std::vector<Values> weights;
  std::vector<float> biases;
  Values convolved;

  explicit Chain(int split = 1, int batch = 2, const std::string& kernel = "")
      : graph(shared_engine(kernel)) {
    s = {.in = {batch, 6, 5, 7},
         .outputs = 6,
         .kernel_x = 3,
         .kernel_y = 3,
         .pad_x = 1,
         .pad_y = 1,
         .split = split};
    in = random_values(s.in, 1);
    biases = random_values({1, 1, 1, 6}, 2).data;
    graph.input("in", in);
    auto conv = graph.describe<cldnn_convolution_desc>(cldnn_convolution_type_id, "conv", {"in"});
    conv.input_offset = tensor(0, 0, -1, -1);
    conv.stride = tensor(1, 1, 1, 1);
    conv.dilation = tensor(1, 1, 1, 1);
    conv.split = static_cast<uint32_t>(split);
    std::vector<std::string> weight_names;
    std::vector<std::string> bias_names;
    for (int part = 0; part < split; ++part) {
      const unsigned seed = 10 + static_cast<unsigned>(part);
      weights.push_back(random_values({6 / split, 6 / split, 3, 3}, seed));
      weight_names.push_back("w" + std::to_string(part));
      bias_names.push_back("b" + std::to_string(part));
      graph.data(weight_names.back().c_str(), weights.back());
      const auto first = biases.begin() + part * 6 / split;
      graph.data(bias_names.back().c_str(), along_x({first, first + 6 / split}));
    }
    conv.weights = graph.ids(weight_names);
    conv.bias = graph.ids(bias_names);
    graph.add(conv.header);
    convolved = convolution(in, weights, biases, s);
  }

  void batch_norm(const char* id, const char* from) {
    graph.data("mean", mean);
    graph.data("variance", variance);
    auto desc = graph.describe<cldnn_batch_norm_desc>(cldnn_batch_norm_type_id, id, {from});
    desc.mean = "mean";
    desc.variance = "variance";
    desc.use_global_statistics = 1;
    desc.epsilon = 0.01f;
    graph.add(desc.header);
  }

  void scale(const char* id, const char* from, const Values& scales, bool with_bias) {
    graph.data("scales", scales);
    graph.data("offsets", scales);
    auto desc = graph.describe<cldnn_scale_desc>(cldnn_scale_type_id, id, {from});
    desc.scale_input = "scales";
    desc.bias = with_bias ? "offsets" : "";
    graph.add(desc.header);
  }

  void rectify(const char* id, const char* from, float slope, const char* slopes = "") {
    auto desc = graph.describe<cldnn_activation_desc>(cldnn_activation_type_id, id, {from});
    desc.negative_slope = slope;
    desc.slope_input = slopes;
    graph.add(desc.header);
  }

  void sum(const char* id, const char* a, const char* b, float slope = 1) {
    auto desc = graph.describe<cldnn_eltwise_desc>(cldnn_eltwise_type_id, id, {a});
    desc.second_input = b;
    desc.with_activation = slope == 1 ? 0 : 1;
    desc.activation_slope = slope;
    graph.add(desc.header);
  }

  Values mean = random_values({1, 6, 1, 1}, 3);
  Values variance = [] {
    Values made = random_values({1, 6, 1, 1}, 4);
    for (float& value : made.data) value = std::fabs(value) + 0.1f;
    return made;
  }();
  Values per_feature = random_values({1, 6, 1, 1}, 5);
};

// All of it at once, for every kernel that can do it.
TEST(Chain, NormalisationScaleSumAndSlopesGiveTheNumbersOfThePrimitives) {
  for (int split : {1, 2, 6}) {
    for (int batch : {1, 2}) {
      for (const char* kernel : {"", "product_local"}) {
        Chain chain(split, batch, kernel);
        const Values slopes = random_values({1, 1, 1, 6}, 6);
        chain.batch_norm("bn", "conv");
        chain.scale("scale", "bn", chain.per_feature, true);
        chain.sum("sum", "scale", "in");
        chain.graph.data("slopes", slopes);
        chain.rectify("end", "sum", 0, "slopes");
        const Values normalised =
            batch_norm(chain.convolved, chain.mean.data, chain.variance.data, 0.01f);
        const Values scaled = test::scale(normalised, chain.per_feature, &chain.per_feature);
        expect_near(chain.graph.result("end"),
                    test::rectify(eltwise(scaled, chain.in, 0), slopes.data));
        EXPECT_EQ(chain.graph.output_names(), std::vector<std::string>{"end"});
      }
    }
  }
}

TEST(Chain, OneScaleForAllFeaturesAndASlope) {
  Chain chain;
  chain.scale("scale", "conv", listed({1, 1, 1, 1}, {-0.5f}), false);
  chain.rectify("end", "scale", 0.1f);
  Values expected = chain.convolved;
  for (float& value : expected.data) value *= -0.5f;
  expect_near(chain.graph.result("end"), rectify(expected, {0.1f}));
}

TEST(Chain, ASumWithItsOwnActivationEndsIt) {
  Chain chain;
  chain.sum("sum", "in", "conv", 0.5f);
  chain.rectify("end", "sum", -1);
  const Values summed = rectify(eltwise(chain.convolved, chain.in, 0), {0.5f});
  expect_near(chain.graph.result("end"), rectify(summed, {-1}));
}

TEST(Chain, WhatFollowsARectificationIsNotTakenIn) {
  Chain chain;
  chain.rectify("relu", "conv", 0);
  chain.scale("end", "relu", chain.per_feature, false);
  const Values rectified = rectify(chain.convolved, {0});
  expect_near(chain.graph.result("end"), scale(rectified, chain.per_feature, nullptr));
}

TEST(Chain, AScaleAfterASumIsNotTakenIn) {
  Chain chain;
  chain.sum("sum", "conv", "in");
  chain.scale("end", "sum", chain.per_feature, false);
  const Values summed = eltwise(chain.convolved, chain.in, 0);
  expect_near(chain.graph.result("end"), scale(summed, chain.per_feature, nullptr));
}

TEST(Chain, AResultThatAnotherOneReadsIsKept) {
  Chain chain;
  chain.rectify("relu", "conv", 0);
  chain.sum("end", "relu", "conv");
  const Values expected = eltwise(rectify(chain.convolved, {0}), chain.convolved, 0);
  expect_near(chain.graph.result("end"), expected);
  expect_near(chain.graph.result("conv"), chain.convolved);
}

TEST(Chain, ASumOfTwoProductsBelongsToOneOfThem) {
  Chain chain;
  auto conv =
      chain.graph.describe<cldnn_convolution_desc>(cldnn_convolution_type_id, "another", {"in"});
  conv.input_offset = tensor(0, 0, -1, -1);
  conv.stride = tensor(1, 1, 1, 1);
  conv.dilation = tensor(1, 1, 1, 1);
  conv.split = 1;
  conv.weights = chain.graph.ids({"w0"});
  chain.graph.add(conv.header);
  chain.sum("sum", "another", "conv");
  chain.rectify("end", "sum", 0);
  const Values other = convolution(chain.in, chain.weights, {}, chain.s);
  expect_near(chain.graph.result("end"), rectify(eltwise(other, chain.convolved, 0), {0}));
}

TEST(Chain, AScaleThatIsComputedIsNotFolded) {
  Chain chain(1, 1);
  auto pool = chain.graph.describe<cldnn_pooling_desc>(cldnn_pooling_type_id, "pool", {"in"});
  pool.mode = CLDNN_POOLING_AVERAGE;
  pool.stride = tensor(1, 1, 1, 1);
  pool.size = tensor(1, 1, 7, 5);
  chain.graph.add(pool.header);
  auto desc = chain.graph.describe<cldnn_scale_desc>(cldnn_scale_type_id, "end", {"conv"});
  desc.scale_input = "pool";
  desc.bias = "";
  chain.graph.add(desc.header);
  const Values pooled = pooling(chain.in, 1, {.in = chain.s.in, .window_x = 7, .window_y = 5});
  expect_near(chain.graph.result("end"), scale(chain.convolved, pooled, nullptr));
}

TEST(Chain, ResultsInBetweenAreRefusedByNameAndKeptByTheDebugOption) {
  Chain chain;
  chain.rectify("end", "conv", 0);
  ASSERT_EQ(chain.graph.run(), Stage::kDone) << chain.graph.text();
  cldnn_status status = CLDNN_SUCCESS;
  EXPECT_EQ(cldnn_get_network_output(chain.graph.network(), "conv", &status).memory, nullptr);
  EXPECT_EQ(status, CLDNN_ERROR);
  EXPECT_NE(std::string(cldnn_get_last_error_message()).find("\"end\""), std::string::npos);
  ASSERT_EQ(chain.graph.run({{CLDNN_OPTION_DEBUG, reinterpret_cast<const void*>(1)}}),
            Stage::kDone);
  expect_near(chain.graph.result("conv"), chain.convolved);
  expect_near(chain.graph.result("end"), rectify(chain.convolved, {0}));
}

TEST(Chain, ANamedOutputIsNotTakenIn) {
  Chain chain;
  chain.rectify("end", "conv", 0);
  const cldnn_id_list outputs = chain.graph.ids({"conv", "end"});
  ASSERT_EQ(chain.graph.run({{CLDNN_OPTION_OUTPUTS, &outputs}}), Stage::kDone);
  expect_near(chain.graph.result("conv"), chain.convolved);
}

TEST(Chain, WrongShapesAreRefusedAsWithoutAChain) {
  Chain chain;
  chain.graph.data("slopes", along_x({1, 2, 3}));
  chain.rectify("end", "conv", 0, "slopes");
  EXPECT_EQ(chain.graph.run(), Stage::kAllocate);
}

TEST(Chain, AFullyConnectedResultTakesASlopeAndASum) {
  const Values in = random_values({2, 3, 2, 2}, 1);
  const Values weights = random_values({5, 3, 2, 2}, 2);
  const Values other = random_values({2, 1, 1, 5}, 3);
  Graph graph;
  graph.input("in", in);
  graph.input("other", other);
  graph.data("w", weights);
  auto fc = graph.describe<cldnn_fully_connected_desc>(cldnn_fully_connected_type_id, "fc", {"in"});
  fc.weights = "w";
  fc.bias = "";
  graph.add(fc.header);
  auto sum = graph.describe<cldnn_eltwise_desc>(cldnn_eltwise_type_id, "sum", {"fc"});
  sum.second_input = "other";
  graph.add(sum.header);
  auto relu = graph.describe<cldnn_activation_desc>(cldnn_activation_type_id, "end", {"sum"});
  relu.slope_input = "";
  graph.add(relu.header);
  const Values summed = eltwise(fully_connected(in, weights, {}), other, 0);
  expect_near(graph.result("end"), rectify(summed, {0}));
}

}  // namespace
}  // namespace ravu::opencl::test
