// Run mode 3 with the real library: single layers and whole networks against run mode 0.
#include <gtest/gtest.h>

#include <cmath>
#include <random>

#include "layers/ConvLayer.h"
#include "layers/FullyConnectLayer.h"
#include "support/blobs.h"
#include "support/captured.h"
#include "support/handles.h"
#include "support/small_models.h"

namespace ravu::test {
namespace {

std::shared_ptr<const FixedPointLibrary> library() {
  auto opened = open_fixed_point_library(RAVU_FIXPOINT_LIBRARY);
  if (!opened) throw std::runtime_error(opened.problem);
  return std::make_shared<const FixedPointLibrary>(std::move(opened));
}

// The length of the difference in parts of the length of `exact`.
double relative_error(const std::vector<float>& values, const std::vector<float>& exact) {
  double difference = 0;
  double length = 0;
  for (std::size_t i = 0; i < exact.size(); ++i) {
    difference += std::pow(double{values[i]} - exact[i], 2);
    length += std::pow(double{exact[i]}, 2);
  }
  return length == 0 ? difference : std::sqrt(difference / length);
}

// Sets up and runs mode 3 over other values, so that what it leaves out does not look like an
// earlier result.
std::vector<float> result_of_mode_3(LayerRig& rig) {
  rig.set_up(/*mode=*/3);
  Blob& output = *rig.layer.outputs.back();
  std::fill_n(output.data, output.count, 1e9F);
  return rig.run(/*mode=*/3);
}

// Runs the layer in mode 0 and then in mode 3; gives the error.
double error_of_mode_3(LayerRig& rig) {
  rig.workspace.fixed_point = library();
  rig.set_up(/*mode=*/0);
  const auto exact = rig.run(/*mode=*/0);
  return relative_error(result_of_mode_3(rig), exact);
}

class Draw {
 public:
  int operator()(int low, int high) {
    return std::uniform_int_distribution<int>(low, high)(random_);
  }

 private:
  std::mt19937 random_{11};
};

// A base, so that the layer is there before its rig.
struct OneConv {
  ConvLayer conv;
};

// A convolution with random sizes, weights and input, wired; `many_groups` of one channel, if any.
struct RandomConv : OneConv, LayerRig {
  RandomConv(Draw& draw, unsigned seed, int many_groups = 0) : LayerRig(conv) {
    conv.groups = many_groups != 0 ? many_groups : draw(0, 2) == 0 ? draw(2, 4) : 1;
    conv.output_channels = draw(1, many_groups != 0 ? 3 : 24);
    conv.kernel_h = conv.kernel_w = draw(1, 5);
    conv.stride_h = conv.stride_w = draw(1, 3);
    conv.pad_h = conv.pad_w = draw(0, 2);
    conv.dilation_h = conv.dilation_w = draw(0, 5) == 0 ? 2 : 1;
    conv.has_bias = draw(0, 1) == 1;
    const auto channels = static_cast<std::uint32_t>(many_groups != 0 ? 1 : draw(4, 24));
    const auto row = static_cast<std::uint32_t>(conv.kernel_h * conv.kernel_w) * channels;
    const auto rows = static_cast<std::uint32_t>(conv.output_channels);
    for (int g = 0; g < conv.groups; ++g) {
      conv.weights.push_back(
          make_blob({rows, row, 1, 1}, random_values(std::size_t{rows} * row, seed + 1)));
      conv.biases.push_back(make_blob({1, 1, 1, rows}, random_values(rows, seed + 2)));
    }
    const Dims dims{static_cast<std::uint32_t>(draw(1, 3)),
                    static_cast<std::uint32_t>(draw(12, 20)),
                    static_cast<std::uint32_t>(draw(12, 20)),
                    channels * static_cast<std::uint32_t>(conv.groups)};
    const Blob& input =
        add_input(dims, random_values(std::size_t{dims[0]} * dims[1] * dims[2] * dims[3], seed));
    add_output(conv_record_shape(conv, input, conv.groups > 1)->dims);
  }
};

TEST(FixedPointConvolution, StaysWithinTwoPercentOfSinglePrecision) {
  Draw draw;
  for (unsigned i = 0; i < 120; ++i) {
    RandomConv rig(draw, 10 * i);
    EXPECT_LT(error_of_mode_3(rig), 0.02) << "case " << i;
    for (const auto& op : rig.conv.operators) {
      EXPECT_EQ(rig.workspace.fixed_point->executions(op.get()), rig.blobs[0]->dims[0])
          << "one integer primitive per image";
    }
    EXPECT_FALSE(rig.conv.operators.empty());
  }
}

TEST(FixedPointConvolution, FollowsShapeChanges) {
  Draw draw;
  for (unsigned i = 0; i < 40; ++i) {
    RandomConv rig(draw, 10 * i + 5);
    error_of_mode_3(rig);
    Blob& input = *rig.blobs[0];
    reshape(input, *make_shape(draw(1, 4), draw(9, 15), draw(9, 15), input.dims[3], kInterleaved));
    const auto values = random_values(input.count, i);
    std::copy(values.begin(), values.end(), input.data);
    rig.conv.Reshape();
    EXPECT_LT(error_of_mode_3(rig), 0.02) << "case " << i;
  }
}

// More groups than threads: each thread runs some of them. Fewer: each group is run by all.
TEST(FixedPointConvolution, GroupsGiveTheSameBitsWhicheverThreadsRunThem) {
  Draw draw;
  for (unsigned i = 0; i < 40; ++i) {
    RandomConv rig(draw, 10 * i + 3);
    rig.workspace.fixed_point = library();
    std::vector<float> expected;
    for (const std::size_t threads : {1U, 2U, 3U, 5U}) {
      rig.workspace.workers().set_threads(threads);
      for (const bool team : {false, true}) {
        rig.workspace.workers().set_team(team ? rig.workspace.fixed_point->run_tasks : nullptr);
        const auto values = result_of_mode_3(rig);
        ASSERT_FALSE(rig.conv.operators.empty());
        if (expected.empty()) expected = values;
        EXPECT_EQ(values, expected)
            << "case " << i << ", " << threads << (team ? " of the library's" : "") << " threads";
      }
    }
  }
}

// More of them than are taken out of the pixels at a time, whole blocks and a rest.
TEST(FixedPointConvolution, ManyGroupsOfOneChannelAreComputedInBlocks) {
  Draw draw;
  unsigned seed = 7;
  for (const int groups : {15, 16, 17, 32, 37, 50}) {
    for (const std::size_t threads : {1U, 2U, 3U, 40U}) {
      RandomConv rig(draw, seed += 10, groups);
      rig.workspace.workers().set_threads(threads);
      EXPECT_LT(error_of_mode_3(rig), 0.02) << groups << " groups, " << threads << " threads";
    }
  }
}

TEST(FixedPointFullyConnected, StaysWithinTwoPercentOfSinglePrecision) {
  Draw draw;
  for (unsigned i = 0; i < 120; ++i) {
    const auto batch = static_cast<std::uint32_t>(draw(1, 5));
    const auto features = static_cast<std::uint32_t>(draw(16, 400));
    const auto outputs = static_cast<std::uint32_t>(draw(8, 60));
    FullyConnectLayer product;
    LayerRig rig(product);
    product.weights = make_blob({features, outputs, 1, 1},
                                random_values(std::size_t{features} * outputs, 10 * i));
    product.has_bias = draw(0, 1) == 1;
    if (product.has_bias) {
      product.bias = make_blob({1, 1, 1, outputs}, random_values(outputs, 10 * i + 1));
    }
    rig.add_input({batch, 1, 1, features},
                  random_values(std::size_t{batch} * features, 10 * i + 2));
    rig.add_output({batch, 1, 1, outputs});
    EXPECT_LT(error_of_mode_3(rig), 0.02) << "case " << i;
    EXPECT_EQ(rig.workspace.fixed_point->executions(product.fixed_point.get()), 1U);
  }
}

bool all_finite(const Network& network) {
  for (const Blob* output : network.outputs) {
    for (const float value : values_of(*output)) {
      if (!std::isfinite(value)) return false;
    }
  }
  return true;
}

TEST(FixedPointNetworks, EveryKindOfModelRuns) {
  for (const SmallModel& model : small_models()) {
    LoadResult loaded = load(model.bytes);
    ASSERT_TRUE(loaded.network) << model.name;
    Network& network = *loaded.network;
    network.workspace.fixed_point = library();
    ravu_network* handle = to_handle(&network);
    const std::string complaints = captured_stderr([&] {
      ASSERT_TRUE(ravu_setup_runEngine(handle, RAVU_MODE_FIXED_POINT));
      for (const std::uint32_t batch : {1U, 2U}) {
        const Dims dims = network.input->dims;
        const auto image = random_values(std::size_t{batch} * dims[1] * dims[2] * dims[3], batch);
        ravu_set_InputData_byRawData_float(handle, image.data(), batch, dims[1], dims[2], dims[3]);
        ravu_forward(handle, RAVU_MODE_FIXED_POINT);
        EXPECT_TRUE(all_finite(network)) << model.name;
      }
    });
    EXPECT_EQ(complaints, "") << model.name;
    ravu_release_netowrk_weights(handle);
    captured_stderr([&] { ravu_forward(handle, RAVU_MODE_FIXED_POINT); });
  }
}

TEST(FixedPointNetworks, AgreeWithSinglePrecisionAndSwitchBack) {
  const Handle handle(small_classifier());
  handle.network().workspace.fixed_point = library();
  for (int i = 0; i < 2; ++i) {
    ASSERT_TRUE(ravu_setup_runEngine(handle, RAVU_MODE_FIXED_POINT));
    const auto scores = run(handle, {1, 2, 3, 4}, RAVU_MODE_FIXED_POINT);
    EXPECT_NEAR(scores.at(0), 5, 0.1);
    EXPECT_NEAR(scores.at(1), 13, 0.2);
    ASSERT_TRUE(ravu_setup_runEngine(handle, RAVU_MODE_CPU));
    EXPECT_EQ(run(handle, {1, 2, 3, 4}), (std::vector<float>{5, 13}));
  }
}

}  // namespace
}  // namespace ravu::test
