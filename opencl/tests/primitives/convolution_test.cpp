// Convolution: sizes, strides, padding, dilation, parts, formats of the weights, both kernels.
#include <gtest/gtest.h>

#include <random>

#include "support/Graph.h"
#include "support/reference.h"

namespace ravu::opencl::test {
namespace {

struct Parameters {
  std::vector<Values> weights;
  std::vector<float> biases;
};

Parameters random_parameters(const ConvolutionCase& s, unsigned seed) {
  Parameters made;
  for (int part = 0; part < s.split; ++part) {
    const Dims dims = {s.outputs / s.split, s.in.f / s.split, s.kernel_y, s.kernel_x};
    made.weights.push_back(random_values(dims, seed + static_cast<unsigned>(part)));
  }
  made.biases = random_values({1, 1, 1, s.outputs}, seed + 7777).data;
  return made;
}

cldnn_convolution_desc describe(Graph& graph, const ConvolutionCase& s) {
  auto conv = graph.describe<cldnn_convolution_desc>(cldnn_convolution_type_id, "conv", {"in"});
  conv.input_offset = tensor(0, 0, -s.pad_x, -s.pad_y);
  conv.stride = tensor(1, 1, s.stride_x, s.stride_y);
  conv.dilation = tensor(1, 1, s.dilation_x, s.dilation_y);
  conv.split = static_cast<uint32_t>(s.split);
  return conv;
}

void add_parameters(Graph& graph, cldnn_convolution_desc& conv, const ConvolutionCase& s,
                    const Parameters& parameters, int32_t weight_format) {
  std::vector<std::string> weights;
  std::vector<std::string> biases;
  for (int part = 0; part < s.split; ++part) {
    weights.push_back("w" + std::to_string(part));
    graph.data(weights.back().c_str(), parameters.weights[static_cast<size_t>(part)],
               weight_format);
    if (parameters.biases.empty()) continue;
    biases.push_back("b" + std::to_string(part));
    const auto first = parameters.biases.begin() + part * s.outputs / s.split;
    graph.data(biases.back().c_str(), along_x({first, first + s.outputs / s.split}));
  }
  conv.weights = graph.ids(weights);
  conv.bias = graph.ids(biases);
}

void expect_convolution(const ConvolutionCase& s, unsigned seed, int32_t weight_format,
                        bool with_bias, cldnn_engine engine) {
  SCOPED_TRACE(testing::Message() << "in " << s.in.b << "x" << s.in.f << "x" << s.in.y << "x"
                                  << s.in.x << " out " << s.outputs << " kernel " << s.kernel_y
                                  << "x" << s.kernel_x << " stride " << s.stride_y << "x"
                                  << s.stride_x << " pad " << s.pad_y << "x" << s.pad_x
                                  << " dilation " << s.dilation_y << "x" << s.dilation_x
                                  << " split " << s.split << " weights " << weight_format);
  const Values in = random_values(s.in, seed);
  Parameters parameters = random_parameters(s, seed + 100);
  if (!with_bias) parameters.biases.clear();
  Graph graph(engine);
  graph.input("in", in);
  cldnn_convolution_desc conv = describe(graph, s);
  add_parameters(graph, conv, s, parameters, weight_format);
  graph.add(conv.header);
  expect_near(graph.result("conv"), convolution(in, parameters.weights, parameters.biases, s));
}

ConvolutionCase random_case(std::mt19937& generator) {
  const auto pick = [&](int low, int high) {
    return std::uniform_int_distribution<int>(low, high)(generator);
  };
  ConvolutionCase s;
  s.split = pick(0, 2) == 0 ? pick(2, 4) : 1;
  s.kernel_x = pick(1, 4);
  s.kernel_y = pick(1, 4);
  s.stride_x = pick(1, 3);
  s.stride_y = pick(1, 3);
  s.pad_x = pick(0, 3);
  s.pad_y = pick(0, 3);
  s.dilation_x = pick(1, 2);
  s.dilation_y = pick(1, 2);
  s.in = {pick(1, 3), s.split * pick(1, 7), pick(1, 11), pick(1, 11)};
  s.outputs = s.split * pick(1, 37);
  return s;
}

TEST(Convolution, AgreesWithTheNaiveOneOnRandomShapes) {
  std::mt19937 generator(1);
  for (unsigned i = 0; i < 60; ++i) {
    const ConvolutionCase s = random_case(generator);
    expect_convolution(s, i, i % 2 == 0 ? CLDNN_FORMAT_YXFB : CLDNN_FORMAT_BFYX, i % 3 != 0,
                       shared_engine());
  }
}

TEST(Convolution, TheTilesOfGpusAgreeWithTheNaiveOneOnRandomShapes) {
  std::mt19937 generator(2);
  for (unsigned i = 0; i < 30; ++i) {
    expect_convolution(random_case(generator), i, CLDNN_FORMAT_YXFB, i % 3 != 0,
                       shared_engine("product_local"));
  }
  // More pixels and units than one tile has, and neither a multiple of it.
  expect_convolution(
      {.in = {1, 20, 9, 11}, .outputs = 70, .kernel_x = 3, .kernel_y = 3, .pad_x = 1, .pad_y = 1},
      5, CLDNN_FORMAT_YXFB, true, shared_engine("product_local"));
}

TEST(Convolution, DepthwiseAgreesWithTheNaiveOneOnRandomShapes) {
  std::mt19937 generator(3);
  for (unsigned i = 0; i < 30; ++i) {
    ConvolutionCase s = random_case(generator);
    s.in.f = std::uniform_int_distribution<int>(1, 20)(generator);
    s.split = s.in.f;
    s.outputs = s.in.f;
    expect_convolution(s, i, i % 2 == 0 ? CLDNN_FORMAT_YXFB : CLDNN_FORMAT_BFYX, i % 3 != 0,
                       shared_engine());
  }
}

// Wide enough that whole runs of pixels and lanes lie inside the image.
TEST(Convolution, DepthwiseRunsInsideTheImageAgreeWithTheNaiveOne) {
  for (int stride : {1, 2}) {
    for (int dilation : {1, 2}) {
      expect_convolution({.in = {1, 35, 4, 21},
                          .outputs = 35,
                          .kernel_x = 3,
                          .kernel_y = 3,
                          .stride_x = stride,
                          .stride_y = stride,
                          .pad_x = 1,
                          .pad_y = 1,
                          .dilation_x = dilation,
                          .dilation_y = dilation,
                          .split = 35},
                         1, CLDNN_FORMAT_YXFB, true, shared_engine());
    }
  }
}

// Enough pixels for a work item to go through several panels of weights, the last one not full.
TEST(Convolution, SeveralPanelsPerWorkItemAgreeWithTheNaiveOne) {
  for (int split : {1, 2}) {
    for (int batch : {1, 2}) {
      expect_convolution({.in = {batch, 8, 23, 21},
                          .outputs = 70,
                          .kernel_x = 3,
                          .kernel_y = 3,
                          .pad_x = 1,
                          .pad_y = 1,
                          .split = split},
                         1, CLDNN_FORMAT_YXFB, true, shared_engine());
    }
  }
}

TEST(Convolution, SeveralOutputsForEachOfManyPartsAgreeWithTheNaiveOne) {
  expect_convolution({.in = {2, 6, 5, 4},
                      .outputs = 18,
                      .kernel_x = 3,
                      .kernel_y = 3,
                      .pad_x = 1,
                      .pad_y = 1,
                      .split = 6},
                     1, CLDNN_FORMAT_YXFB, true, shared_engine());
}

TEST(Convolution, AnExtentLargerThanThePaddedInputGivesOneOutput) {
  expect_convolution({.in = {1, 2, 3, 3}, .outputs = 2, .kernel_x = 5, .kernel_y = 5}, 1,
                     CLDNN_FORMAT_YXFB, true, shared_engine());
}

TEST(Convolution, RoundsItsOutputSizeDown) {
  Graph graph;
  ConvolutionCase s = {
      .in = {1, 1, 6, 6}, .outputs = 1, .kernel_x = 3, .kernel_y = 3, .stride_x = 2, .stride_y = 2};
  graph.input("in", random_values(s.in, 1));
  cldnn_convolution_desc conv = describe(graph, s);
  add_parameters(graph, conv, s, random_parameters(s, 1), CLDNN_FORMAT_YXFB);
  graph.add(conv.header);
  EXPECT_EQ(graph.result("conv").dims, (Dims{1, 1, 2, 2}));
}

TEST(Convolution, ItsOwnActivationIsALeakyRectifier) {
  const ConvolutionCase s = {.in = {1, 3, 4, 4}, .outputs = 5, .kernel_x = 2, .kernel_y = 2};
  const Values in = random_values(s.in, 4);
  const Parameters parameters = random_parameters(s, 5);
  Graph graph;
  graph.input("in", in);
  cldnn_convolution_desc conv = describe(graph, s);
  add_parameters(graph, conv, s, parameters, CLDNN_FORMAT_YXFB);
  conv.with_activation = 1;
  conv.activation_slope = 0.25f;
  graph.add(conv.header);
  const Values plain = convolution(in, parameters.weights, parameters.biases, s);
  expect_near(graph.result("conv"), rectify(plain, {0.25f}));
}

TEST(Convolution, WithoutActivationTheSlopeIsIgnored) {
  const ConvolutionCase s = {.in = {1, 3, 4, 4}, .outputs = 5};
  const Values in = random_values(s.in, 4);
  const Parameters parameters = random_parameters(s, 5);
  Graph graph;
  graph.input("in", in);
  cldnn_convolution_desc conv = describe(graph, s);
  add_parameters(graph, conv, s, parameters, CLDNN_FORMAT_YXFB);
  conv.activation_slope = 0.25f;
  graph.add(conv.header);
  expect_near(graph.result("conv"), convolution(in, parameters.weights, parameters.biases, s));
}

// A case of 2 parts whose descriptor is spoiled before it is added.
struct Refused {
  Graph graph;
  ConvolutionCase s{.in = {1, 4, 5, 5}, .outputs = 4, .kernel_x = 3, .kernel_y = 3, .split = 2};

  template <typename Spoil>
  Stage run(Spoil spoil, int32_t weight_format = CLDNN_FORMAT_YXFB,
            int32_t in_format = CLDNN_FORMAT_YXFB) {
    graph.input("in", random_values(s.in, 1), in_format);
    cldnn_convolution_desc conv = describe(graph, s);
    add_parameters(graph, conv, s, random_parameters(s, 1), weight_format);
    spoil(conv);
    graph.add(conv.header);
    const Stage stage = graph.run();
    if (stage != Stage::kDone) {
      EXPECT_FALSE(graph.text().empty());
    }
    return stage;
  }
};

TEST(Convolution, RefusesCountsThatContradictTheSplitWhenAdded) {
  EXPECT_EQ(Refused().run([](auto& conv) { conv.split = 3; }), Stage::kAdd);
  EXPECT_EQ(Refused().run([](auto& conv) { conv.split = 0; }), Stage::kAdd);
  EXPECT_EQ(Refused().run([](auto& conv) { conv.bias.size = 1; }), Stage::kAdd);
  EXPECT_EQ(Refused().run([](auto& conv) { conv.weights.data = nullptr; }), Stage::kAdd);
}

TEST(Convolution, RefusesFormatsAndWindowsWithoutAKernelWhenBuilt) {
  const auto nothing = [](auto&) {};
  EXPECT_EQ(Refused().run(nothing, CLDNN_FORMAT_BYXF), Stage::kBuild);
  EXPECT_EQ(Refused().run(nothing, CLDNN_FORMAT_FYXB), Stage::kBuild);
  EXPECT_EQ(Refused().run(nothing, CLDNN_FORMAT_YXFB, CLDNN_FORMAT_BFYX), Stage::kBuild);
  const auto stride = [](auto& conv) { conv.stride.sizes[CLDNN_X] = 0; };
  EXPECT_EQ(Refused().run(stride), Stage::kBuild);
  const auto dilation = [](auto& conv) { conv.dilation.sizes[CLDNN_Y] = -1; };
  EXPECT_EQ(Refused().run(dilation), Stage::kBuild);
  const auto offset = [](auto& conv) { conv.input_offset.sizes[CLDNN_X] = 3; };
  EXPECT_EQ(Refused().run(offset), Stage::kBuild);
  const auto huge = [](auto& conv) { conv.input_offset.sizes[CLDNN_X] = -2147483647 - 1; };
  EXPECT_EQ(Refused().run(huge), Stage::kBuild);
  const auto far = [](auto& conv) { conv.dilation.sizes[CLDNN_X] = 2147483647; };
  EXPECT_EQ(Refused().run(far), Stage::kBuild);
}

TEST(Convolution, RefusesWeightsOfAllInputFeaturesInEachPartWhenAllocated) {
  Graph graph;
  const ConvolutionCase s = {.in = {1, 4, 5, 5}, .outputs = 4, .split = 2};
  graph.input("in", random_values(s.in, 1));
  graph.data("w0", random_values({2, 4, 1, 1}, 1));
  graph.data("w1", random_values({2, 4, 1, 1}, 2));
  cldnn_convolution_desc conv = describe(graph, s);
  conv.weights = graph.ids({"w0", "w1"});
  graph.add(conv.header);
  EXPECT_EQ(graph.run(), Stage::kAllocate);
  EXPECT_EQ(graph.status(), CLDNN_ERROR);
}

TEST(Convolution, RefusesABiasThatDoesNotLieAlongX) {
  for (const Dims& dims : {Dims{1, 4, 1, 1}, Dims{4, 1, 1, 1}, Dims{1, 1, 1, 5}}) {
    Graph graph;
    const ConvolutionCase s = {.in = {1, 4, 5, 5}, .outputs = 4};
    graph.input("in", random_values(s.in, 1));
    graph.data("w", random_values({4, 4, 1, 1}, 1));
    graph.data("b", random_values(dims, 1));
    cldnn_convolution_desc conv = describe(graph, s);
    conv.weights = graph.ids({"w"});
    conv.bias = graph.ids({"b"});
    graph.add(conv.header);
    EXPECT_EQ(graph.run(), Stage::kAllocate);
  }
}

TEST(Convolution, RefusesWeightsThatAreNoConstants) {
  Graph graph;
  const ConvolutionCase s = {.in = {1, 4, 5, 5}, .outputs = 4};
  graph.input("in", random_values(s.in, 1));
  graph.input("w", random_values({4, 4, 1, 1}, 1));
  cldnn_convolution_desc conv = describe(graph, s);
  conv.weights = graph.ids({"w"});
  graph.add(conv.header);
  EXPECT_EQ(graph.run(), Stage::kBuild);
}

}  // namespace
}  // namespace ravu::opencl::test
