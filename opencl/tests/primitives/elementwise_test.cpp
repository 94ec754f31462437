// Activation, batch normalisation, scale and eltwise: what maps each value by itself.
#include <gtest/gtest.h>

#include <cmath>

#include "support/Graph.h"
#include "support/reference.h"

namespace ravu::opencl::test {
namespace {

const Dims kShapes[] = {{1, 1, 1, 1}, {1, 3, 5, 4}, {2, 19, 3, 2}, {3, 8, 1, 7}, {1, 64, 9, 9}};
const int32_t kFormats[] = {CLDNN_FORMAT_YXFB, CLDNN_FORMAT_BFYX};

template <typename Check>
void for_shapes_and_formats(Check check) {
  for (const Dims& dims : kShapes) {
    for (int32_t format : kFormats) {
      SCOPED_TRACE(testing::Message() << dims.b << "x" << dims.f << "x" << dims.y << "x" << dims.x
                                      << " format " << format);
      check(dims, format);
    }
  }
}

Values positive(Values values) {
  for (float& value : values.data) value = std::fabs(value) + 0.1f;
  return values;
}

cldnn_activation_desc activation(Graph& graph, float slope, const char* slopes) {
  auto desc = graph.describe<cldnn_activation_desc>(cldnn_activation_type_id, "out", {"in"});
  desc.negative_slope = slope;
  desc.slope_input = slopes;
  return desc;
}

TEST(Activation, OneSlopeRectifiesEverything) {
  for_shapes_and_formats([](const Dims& dims, int32_t format) {
    const Values in = random_values(dims, 1);
    Graph graph;
    graph.input("in", in, format);
    graph.add(activation(graph, 0.3f, "").header);
    expect_near(graph.result("out"), rectify(in, {0.3f}));
  });
}

TEST(Activation, SlopesOutsideZeroToOneAreTakenAsTheyAre) {
  const Values in = random_values({1, 5, 3, 3}, 1);
  Graph graph;
  graph.input("in", in);
  graph.add(activation(graph, -2.0f, "").header);
  expect_near(graph.result("out"), rectify(in, {-2.0f}));
}

TEST(Activation, SlopesOfItsOwnForEveryFeatureReplaceTheNumber) {
  for_shapes_and_formats([](const Dims& dims, int32_t format) {
    const Values in = random_values(dims, 1);
    const Values slopes = random_values({1, 1, 1, dims.f}, 2);
    Graph graph;
    graph.input("in", in, format);
    graph.data("slopes", slopes);
    graph.add(activation(graph, 9, "slopes").header);
    expect_near(graph.result("out"), rectify(in, slopes.data));
  });
}

TEST(Activation, RefusesSlopesThatDoNotLieAlongXWhenAllocated) {
  for (const Dims& dims : {Dims{4, 1, 1, 1}, Dims{1, 4, 1, 1}, Dims{1, 1, 1, 1}}) {
    Graph graph;
    graph.input("in", random_values({1, 4, 2, 2}, 1));
    graph.data("slopes", random_values(dims, 2));
    graph.add(activation(graph, 0, "slopes").header);
    EXPECT_EQ(graph.run(), Stage::kAllocate);
  }
}

TEST(Activation, RefusesANullSlopeTextWhenAdded) {
  Graph graph;
  graph.input("in", random_values({1, 4, 2, 2}, 1));
  graph.add(activation(graph, 0, nullptr).header);
  EXPECT_EQ(graph.run(), Stage::kAdd);
}

TEST(Activation, RefusesFormatsWithoutAKernelWhenBuilt) {
  for (int32_t format : {CLDNN_FORMAT_BYXF, CLDNN_FORMAT_FYXB}) {
    Graph graph;
    graph.input("in", random_values({1, 4, 2, 2}, 1), format);
    graph.add(activation(graph, 0, "").header);
    EXPECT_EQ(graph.run(), Stage::kBuild);
  }
}

cldnn_batch_norm_desc normalisation(Graph& graph, bool global) {
  auto desc = graph.describe<cldnn_batch_norm_desc>(cldnn_batch_norm_type_id, "out", {"in"});
  desc.mean = "mean";
  desc.variance = "variance";
  desc.use_global_statistics = global ? 1 : 0;
  desc.epsilon = 0.01f;
  return desc;
}

TEST(BatchNorm, NormalisesWithStoredStatistics) {
  for_shapes_and_formats([](const Dims& dims, int32_t format) {
    const Values in = random_values(dims, 1);
    const Values mean = random_values({1, dims.f, 1, 1}, 2);
    const Values variance = positive(random_values({1, dims.f, 1, 1}, 3));
    Graph graph;
    graph.input("in", in, format);
    graph.data("mean", mean);
    graph.data("variance", variance);
    graph.add(normalisation(graph, true).header);
    expect_near(graph.result("out"), batch_norm(in, mean.data, variance.data, 0.01f));
  });
}

TEST(BatchNorm, WithoutStoredStatisticsTakesThoseOfTheValues) {
  for_shapes_and_formats([](const Dims& dims, int32_t format) {
    const Values in = random_values(dims, 1);
    std::vector<float> mean;
    std::vector<float> variance;
    for (int f = 0; f < dims.f; ++f) {
      double sum = 0;
      double squares = 0;
      const double count = dims.b * dims.y * dims.x;
      for (int b = 0; b < dims.b; ++b) {
        for (int i = 0; i < dims.y * dims.x; ++i) sum += in.at(b, f, i / dims.x, i % dims.x);
      }
      for (int b = 0; b < dims.b; ++b) {
        for (int i = 0; i < dims.y * dims.x; ++i) {
          squares += std::pow(in.at(b, f, i / dims.x, i % dims.x) - sum / count, 2);
        }
      }
      mean.push_back(static_cast<float>(sum / count));
      variance.push_back(static_cast<float>(squares / count));
    }
    Graph graph;
    graph.input("in", in, format);
    graph.data("mean", zeros({1, dims.f, 1, 1}));
    graph.data("variance", zeros({1, dims.f, 1, 1}));
    graph.add(normalisation(graph, false).header);
    expect_near(graph.result("out"), batch_norm(in, mean, variance, 0.01f), 1e-4);
  });
}

TEST(BatchNorm, RefusesStatisticsThatAreTooShortWhenAllocated) {
  Graph graph;
  graph.input("in", random_values({1, 4, 2, 2}, 1));
  graph.data("mean", zeros({1, 4, 1, 1}));
  graph.data("variance", zeros({1, 3, 1, 1}));
  graph.add(normalisation(graph, true).header);
  EXPECT_EQ(graph.run(), Stage::kAllocate);
}

void expect_scaled(const Dims& dims, const Dims& scale_dims, int32_t format, int32_t scale_format,
                   bool with_bias) {
  const Values in = random_values(dims, 1);
  const Values scales = random_values(scale_dims, 2);
  const Values biases = random_values(scale_dims, 3);
  Graph graph;
  graph.input("in", in, format);
  graph.data("scales", scales, scale_format);
  graph.data("biases", biases, scale_format);
  auto desc = graph.describe<cldnn_scale_desc>(cldnn_scale_type_id, "out", {"in"});
  desc.scale_input = "scales";
  desc.bias = with_bias ? "biases" : "";
  graph.add(desc.header);
  expect_near(graph.result("out"), scale(in, scales, with_bias ? &biases : nullptr));
}

TEST(Scale, RepeatsTheScaleAlongEveryDimensionOfSizeOne) {
  for_shapes_and_formats([](const Dims& dims, int32_t format) {
    for (int kept = 0; kept < 16; ++kept) {
      const Dims scale_dims = {kept & 1 ? dims.b : 1, kept & 2 ? dims.f : 1, kept & 4 ? dims.y : 1,
                               kept & 8 ? dims.x : 1};
      const int32_t scale_format = kept % 3 == 0 ? CLDNN_FORMAT_BFYX : CLDNN_FORMAT_YXFB;
      expect_scaled(dims, scale_dims, format, scale_format, kept % 2 == 0);
    }
  });
}

TEST(Scale, RefusesOtherSizesWhenAllocated) {
  Graph graph;
  graph.input("in", random_values({1, 4, 2, 2}, 1));
  graph.data("scales", zeros({1, 3, 1, 1}));
  auto desc = graph.describe<cldnn_scale_desc>(cldnn_scale_type_id, "out", {"in"});
  desc.scale_input = "scales";
  desc.bias = "";
  graph.add(desc.header);
  EXPECT_EQ(graph.run(), Stage::kAllocate);
}

TEST(Scale, RefusesABiasOfAnotherShapeThanTheScaleWhenAllocated) {
  Graph graph;
  graph.input("in", random_values({1, 4, 2, 2}, 1));
  graph.data("scales", zeros({1, 4, 1, 1}));
  graph.data("biases", zeros({1, 1, 1, 1}));
  auto desc = graph.describe<cldnn_scale_desc>(cldnn_scale_type_id, "out", {"in"});
  desc.scale_input = "scales";
  desc.bias = "biases";
  graph.add(desc.header);
  EXPECT_EQ(graph.run(), Stage::kAllocate);
}

cldnn_eltwise_desc combination(Graph& graph, int mode) {
  auto desc = graph.describe<cldnn_eltwise_desc>(cldnn_eltwise_type_id, "out", {"a"});
  desc.second_input = "b";
  desc.mode = mode;
  return desc;
}

TEST(Eltwise, CombinesInAllModes) {
  for_shapes_and_formats([](const Dims& dims, int32_t format) {
    for (int mode = 0; mode < 4; ++mode) {
      const Values a = random_values(dims, 1);
      const Values b = random_values(dims, 2);
      Graph graph;
      graph.input("a", a, format);
      graph.input("b", b, format);
      graph.add(combination(graph, mode).header);
      expect_near(graph.result("out"), eltwise(a, b, mode));
    }
  });
}

TEST(Eltwise, AnUnknownModeIsASum) {
  const Values a = random_values({1, 3, 2, 2}, 1);
  const Values b = random_values({1, 3, 2, 2}, 2);
  Graph graph;
  graph.input("a", a);
  graph.input("b", b);
  graph.add(combination(graph, 17).header);
  expect_near(graph.result("out"), eltwise(a, b, 0));
}

TEST(Eltwise, ItsOwnActivationIsALeakyRectifier) {
  const Values a = random_values({1, 3, 5, 5}, 1);
  const Values b = random_values({1, 3, 5, 5}, 2);
  Graph graph;
  graph.input("a", a);
  graph.input("b", b);
  cldnn_eltwise_desc desc = combination(graph, 1);
  desc.with_activation = 1;
  desc.activation_slope = 0.5f;
  graph.add(desc.header);
  expect_near(graph.result("out"), rectify(eltwise(a, b, 1), {0.5f}));
}

TEST(Eltwise, ASecondIdInTheHeaderTakesThePlaceOfTheField) {
  const Values a = random_values({1, 3, 5, 5}, 1);
  const Values c = random_values({1, 3, 5, 5}, 3);
  Graph graph;
  graph.input("a", a);
  graph.input("b", random_values({1, 3, 5, 5}, 2));
  graph.input("c", c);
  cldnn_eltwise_desc desc = combination(graph, 0);
  desc.header.input = graph.ids({"a", "c"});
  graph.add(desc.header);
  expect_near(graph.result("out"), eltwise(a, c, 0));
}

TEST(Eltwise, RefusesInputsOfDifferentSizeOrFormatWhenAllocated) {
  for (const Dims& dims : {Dims{1, 1, 1, 1}, Dims{1, 3, 2, 4}, Dims{2, 3, 2, 2}}) {
    Graph graph;
    graph.input("a", random_values({1, 3, 2, 2}, 1));
    graph.input("b", random_values(dims, 2));
    graph.add(combination(graph, 0).header);
    EXPECT_EQ(graph.run(), Stage::kAllocate);
  }
  Graph graph;
  graph.input("a", random_values({1, 3, 2, 2}, 1));
  graph.input("b", random_values({1, 3, 2, 2}, 1), CLDNN_FORMAT_BFYX);
  graph.add(combination(graph, 0).header);
  EXPECT_EQ(graph.run(), Stage::kAllocate);
}

TEST(Elementwise, NotANumberStaysOne) {
  Values in = random_values({1, 5, 3, 3}, 1);
  in.data[7] = std::nanf("");
  Graph graph;
  graph.input("in", in);
  graph.add(activation(graph, 0, "").header);
  EXPECT_TRUE(std::isnan(graph.result("out").data[7]));
}

}  // namespace
}  // namespace ravu::opencl::test
