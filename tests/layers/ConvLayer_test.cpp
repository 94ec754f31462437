// Convolution: shapes, sums against the naive reference, groups, dilation, bias runs, what is
// refused, and what happens after shape changes.
#include "layers/ConvLayer.h"

#include <gtest/gtest.h>

#include <limits>
#include <random>

#include "support/blobs.h"
#include "support/reference.h"

namespace ravu::test {
namespace {

std::uint32_t size(int n) {
  return static_cast<std::uint32_t>(n);
}

// A convolution with random weights on a random input, wired and set up.
struct Case {
  explicit Case(const reference::Conv& c, unsigned seed = 1, std::size_t bias_count = 0)
      : conv(c), rig(layer) {
    layer.groups = c.groups;
    layer.output_channels = c.kernels;
    layer.kernel_h = layer.kernel_w = c.kernel;
    layer.stride_h = layer.stride_w = c.stride;
    layer.pad_h = layer.pad_w = c.pad;
    layer.dilation_h = layer.dilation_w = c.dilation;
    layer.has_bias = bias_count > 0;
    const std::uint32_t k = size(c.kernel * c.kernel * (c.channels / c.groups));
    for (int g = 0; g < c.groups; ++g) {
      weights.push_back(random_values(std::size_t{k} * size(c.kernels), seed + 10 + size(g)));
      layer.weights.push_back(make_blob({size(c.kernels), k, 1, 1}, weights.back()));
      bias.push_back(random_values(bias_count, seed + 100 + size(g)));
      layer.biases.push_back(
          bias_count == 0 ? nullptr
                          : make_blob({1, 1, 1, size(static_cast<int>(bias_count))}, bias.back()));
    }
    values = random_values(size(c.batch * c.height * c.width * c.channels), seed);
    input =
        &rig.add_input({size(c.batch), size(c.height), size(c.width), size(c.channels)}, values);
    const auto shape = conv_record_shape(layer, *input, c.groups > 1);
    output = &rig.add_output(shape->dims);
    rig.set_up();
  }

  // Whether a run agrees with the reference; `where` is the first value that does not.
  bool agrees() { return reference::close_to(rig.run(), expected(), &where); }
  reference::Sums expected() const { return reference::convolve(conv, values, weights, bias); }

  reference::Conv conv;
  ConvLayer layer;
  LayerRig rig;
  std::vector<std::vector<float>> weights, bias;
  std::vector<float> values;
  Blob* input = nullptr;
  Blob* output = nullptr;
  std::size_t where = 0;
};

TEST(ConvLayerShape, FollowsKernelStrideAndPadding) {
  Case c({2, 7, 9, 3, 1, 5, 3, 2, 1});
  EXPECT_EQ(c.output->dims, (Dims{2, 4, 5, 5}));
}

TEST(ConvLayerShape, TheDilationTermIsMultipliedByStridePlusOne) {
  ConvLayer layer;
  layer.output_channels = 1;
  layer.kernel_h = layer.kernel_w = 3;
  layer.dilation_h = layer.dilation_w = 2;
  const auto input = make_blob({1, 10, 10, 1});
  EXPECT_EQ(conv_record_shape(layer, *input, /*grouped=*/false)->dims, (Dims{1, 6, 6, 1}));
  layer.stride_h = layer.stride_w = 2;
  EXPECT_EQ(conv_record_shape(layer, *input, /*grouped=*/false)->dims, (Dims{1, 3, 3, 1}));
}

TEST(ConvLayerShape, WithADilationOfOneTheRecordsAndTheReshapeAgree) {
  for (std::uint32_t side = 3; side < 40; ++side) {
    for (std::int32_t stride = 1; stride < 4; ++stride) {
      ConvLayer layer;
      layer.output_channels = 2;
      layer.kernel_h = layer.kernel_w = 3;
      layer.stride_h = layer.stride_w = stride;
      LayerRig rig(layer);
      const Blob& input = rig.add_input({1, side, side, 1});
      Blob& output = rig.add_output({1, 1, 1, 2});
      const auto plain = conv_record_shape(layer, input, /*grouped=*/false);
      const auto grouped = conv_record_shape(layer, input, /*grouped=*/true);
      layer.Reshape();
      ASSERT_TRUE(plain && grouped);
      EXPECT_EQ(plain->dims, grouped->dims) << side << " stride " << stride;
      EXPECT_EQ(plain->dims, output.dims) << side << " stride " << stride;
    }
  }
}

TEST(ConvLayerShape, AGroupedRecordLeavesDilationOut) {
  ConvLayer layer;
  layer.output_channels = 2;
  layer.groups = 3;
  layer.kernel_h = layer.kernel_w = 3;
  layer.dilation_h = layer.dilation_w = 2;
  EXPECT_EQ(conv_record_shape(layer, *make_blob({1, 10, 10, 3}), /*grouped=*/true)->dims,
            (Dims{1, 8, 8, 6}));
}

TEST(ConvLayerShape, IsNoneForANegativeSizeOrAZeroStride) {
  ConvLayer layer;
  layer.output_channels = 1;
  layer.kernel_h = layer.kernel_w = 9;
  EXPECT_FALSE(conv_record_shape(layer, *make_blob({1, 4, 4, 1}), false));
  layer.kernel_h = layer.kernel_w = 3;
  layer.stride_h = 0;
  EXPECT_FALSE(conv_record_shape(layer, *make_blob({1, 4, 4, 1}), false));
}

TEST(ConvLayerForward, AgreesWithTheReferenceOnRandomShapes) {
  std::mt19937 random(41);
  const auto draw = [&](int low, int high) {
    return std::uniform_int_distribution<int>(low, high)(random);
  };
  for (int i = 0; i < 400; ++i) {
    const int groups = draw(0, 2) == 0 ? draw(2, 4) : 1;
    const int kernel = draw(1, 4);
    reference::Conv conv{draw(1, 3), draw(4, 12), draw(4, 12), groups * draw(1, 9), groups,
                         draw(1, 9), kernel,      draw(1, 3),  draw(0, 3)};
    Case c(conv, 1000 + size(i), draw(0, 1) == 0 ? 0 : size(conv.kernels));
    EXPECT_TRUE(c.agrees()) << "case " << i << " value " << c.where;
  }
}

TEST(ConvLayerForward, ManyBlocksOfPatchesAgree) {
  Case c({2, 40, 41, 3, 1, 4, 3, 1, 1}, 5, 4);
  EXPECT_TRUE(c.agrees()) << c.where;
}

TEST(ConvLayerForward, PatchesLongerThanTheScratchAreaAreCutIntoSlices) {
  Case c({1, 9, 9, 3000, 1, 2, 7, 1, 3}, 6, 2);
  EXPECT_LE(c.rig.workspace.size(), std::size_t{1} << 22);
  EXPECT_TRUE(c.agrees()) << c.where;
}

TEST(ConvLayerForward, SlicesCutThroughTheChannelsOfAGroup) {
  Case c({1, 9, 9, 3000, 2, 2, 5, 1, 2}, 7);
  EXPECT_TRUE(c.agrees()) << c.where;
}

TEST(ConvLayerForward, OneByOneKernelsNeedNoScratch) {
  Case c({2, 30, 50, 7, 1, 5, 1, 1, 0}, 8, 5);
  EXPECT_EQ(c.rig.workspace.size(), 0U);
  EXPECT_TRUE(c.agrees()) << c.where;
}

TEST(ConvLayerForward, ScratchStaysBoundedForAnyLayer) {
  Case c({1, 128, 128, 64, 1, 2, 3, 1, 1}, 9);
  EXPECT_LE(c.rig.workspace.size() * sizeof(float), std::size_t{16} << 20);
}

TEST(ConvLayerForward, TheBiasRunsOverTheProductInStepsOfItsOwnCount) {
  for (const std::size_t bias_count : {1U, 2U, 7U, 30U}) {
    Case c({2, 6, 5, 2, 1, 3, 3, 1, 1}, 11, bias_count);
    EXPECT_TRUE(c.agrees()) << "bias of " << bias_count;
    Case grouped({2, 6, 5, 4, 2, 3, 3, 1, 1}, 12, bias_count);
    EXPECT_TRUE(grouped.agrees()) << "bias of " << bias_count;
  }
}

TEST(ConvLayerForward, WithoutHasBiasTheBiasIsNotAdded) {
  Case c({1, 4, 4, 1, 1, 2, 3, 1, 1}, 13, 2);
  c.layer.has_bias = false;
  c.bias[0].clear();
  EXPECT_TRUE(c.agrees());
}

TEST(ConvLayerForward, DilationShiftsThePatchAndKeepsItsTapsTogether) {
  for (const int stride : {1, 2}) {
    Case c({2, 11, 12, 3, 1, 4, 3, stride, 1, 2}, 14, 4);
    EXPECT_TRUE(c.agrees()) << "stride " << stride << " value " << c.where;
  }
}

TEST(ConvLayerForward, DilatedGroupsFillRowsImageByImageAndLeaveTheRestZero) {
  // Without the dilation term the record's output is larger than what the patches fill.
  Case c({2, 8, 8, 4, 2, 3, 3, 1, 1, 2}, 15, 3);
  const auto sums = c.expected();
  const auto values = c.rig.run();
  const std::size_t filled = sums.values.size() / 2;
  const std::size_t image = values.size() / 2;
  ASSERT_LT(filled, image);
  for (std::size_t n = 0; n < 2; ++n) {
    for (std::size_t i = 0; i < image; ++i) {
      const double expected = i < filled ? sums.values[n * filled + i] : 0.0;
      EXPECT_NEAR(values[n * image + i], expected, 1e-5) << n << " " << i;
    }
  }
}

TEST(ConvLayerForward, AKernelALittleLargerThanThePaddedInputLeavesItsOutputZero) {
  // Sizes divide towards zero, patches are counted downwards: one output pixel and no patch.
  Case c({1, 2, 2, 1, 1, 2, 3, 2, 0}, 16, 2);
  EXPECT_EQ(c.output->dims, (Dims{1, 1, 1, 2}));
  EXPECT_EQ(c.rig.run(), (std::vector<float>{0, 0}));
}

TEST(ConvLayerForward, OtherRunModesComputeNothing) {
  Case c({1, 4, 4, 1, 1, 2, 3, 1, 1}, 17);
  EXPECT_EQ(c.rig.run(/*mode=*/2), std::vector<float>(32, 0.0F));
}

TEST(ConvLayerForward, TheFixedPointModeWithoutItsLibrarySaysSo) {
  Case c({1, 4, 4, 1, 1, 2, 3, 1, 1}, 18);
  c.rig.set_up(/*mode=*/3);
  testing::internal::CaptureStderr();
  EXPECT_TRUE(c.layer.Forward(3));
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "fixpointconvop_ not initialized yet\n");
  EXPECT_EQ(values_of(*c.output), std::vector<float>(32, 0.0F));
}

TEST(ConvLayerSetup, PlanarWeightsAreInterleavedOnce) {
  // One 2 x 2 kernel over 3 channels, stored channel after channel: dims[0] is the channel count.
  ConvLayer layer;
  layer.output_channels = 1;
  layer.kernel_h = layer.kernel_w = 2;
  layer.weights.push_back(make_blob({3, 2, 2, 1}, {0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11}));
  layer.weights[0]->layout = kPlanar;
  layer.biases.push_back(nullptr);
  LayerRig rig(layer);
  rig.add_input({1, 2, 2, 3}, random_values(12, 3));
  rig.add_output({1, 1, 1, 1});
  const std::vector<float> turned{0, 4, 8, 1, 5, 9, 2, 6, 10, 3, 7, 11};
  for (const int mode : {0, 3, 0}) {
    rig.set_up(mode);
    EXPECT_EQ(values_of(*layer.weights[0]), turned) << "mode " << mode;
    EXPECT_TRUE(layer.kernels_transposed);
    EXPECT_EQ(layer.weights[0]->layout, kInterleaved);
  }
}

TEST(ConvLayerSetup, PlanarWeightsOfALayerWithoutOutputMayGoWithAnyKernelSize) {
  for (const std::int32_t kernel : {0, 3, 46341, 65536, 0x7FFFFFFF}) {
    ConvLayer layer;
    layer.output_channels = 1;
    layer.kernel_h = layer.kernel_w = kernel;
    layer.weights.push_back(make_blob({2, 2, 1, 1}, {0, 1, 2, 3}));
    layer.weights[0]->layout = kPlanar;
    layer.biases.push_back(nullptr);
    LayerRig rig(layer);
    rig.add_input({1, 2, 2, 2});
    ASSERT_TRUE(fits(layer));
    rig.set_up();
    EXPECT_EQ(values_of(*layer.weights[0]), (std::vector<float>{0, 1, 2, 3})) << kernel;
  }
}

TEST(ConvLayerReshape, FollowsTheInputAndKeepsTheLoadersChannels) {
  Case c({1, 8, 8, 4, 2, 3, 3, 1, 1}, 19, 3);
  reshape(*c.input, *make_shape(3, 10, 6, 4, kInterleaved));
  c.layer.Reshape();
  EXPECT_EQ(c.output->dims, (Dims{3, 10, 6, 6}));
  c.conv.batch = 3;
  c.conv.height = 10;
  c.conv.width = 6;
  c.values = random_values(c.input->count, 20);
  std::copy(c.values.begin(), c.values.end(), c.input->data);
  EXPECT_TRUE(c.agrees());
}

TEST(ConvLayerReshape, ASecondCallWithTheSameInputKeepsTheOutput) {
  Case c({1, 8, 8, 2, 1, 3, 3, 1, 1}, 21);
  c.rig.run();
  const float* data = c.output->data;
  const auto before = values_of(*c.output);
  c.layer.Reshape();
  EXPECT_EQ(c.output->data, data);
  EXPECT_EQ(values_of(*c.output), before);
}

TEST(ConvLayerReshape, LeavesDilationOutOfItsFormula) {
  Case c({1, 10, 10, 1, 1, 1, 3, 1, 0, 2}, 22);
  EXPECT_EQ(c.output->dims, (Dims{1, 6, 6, 1}));
  c.layer.Reshape();
  EXPECT_EQ(c.output->dims, (Dims{1, 8, 8, 1}));
}

TEST(ConvLayerReshape, WorkMemoryFollowsTheInputWhenTheOutputKeepsItsShape) {
  // Strides hide one row: the output stays 2 x 2 while the input grows.
  Case c({1, 5, 5, 3, 1, 2, 3, 2, 0}, 23);
  reshape(*c.input, *make_shape(1, 6, 6, 3, kInterleaved));
  c.layer.Reshape();
  EXPECT_EQ(c.output->dims, (Dims{1, 2, 2, 2}));
  c.conv.height = c.conv.width = 6;
  c.values = random_values(c.input->count, 24);
  std::copy(c.values.begin(), c.values.end(), c.input->data);
  EXPECT_TRUE(c.agrees());
}

TEST(ConvLayerReshape, AnInputTooSmallForTheKernelLeavesTheOutputAsItIs) {
  Case c({1, 8, 8, 1, 1, 1, 5, 1, 0}, 25);
  reshape(*c.input, *make_shape(1, 2, 2, 1, kInterleaved));
  c.layer.Reshape();
  EXPECT_EQ(c.output->dims, (Dims{1, 4, 4, 1}));
  EXPECT_TRUE(c.layer.Forward(0));
}

TEST(ConvLayerReshape, MoreChannelsThanTheWeightsKnowComputeNothing) {
  Case c({1, 4, 4, 2, 1, 3, 3, 1, 1}, 26);
  reshape(*c.input, *make_shape(1, 4, 4, 20, kInterleaved));
  c.layer.Reshape();
  EXPECT_EQ(c.rig.run(), std::vector<float>(48, 0.0F));
}

TEST(ConvLayerRelease, ForwardWithoutWeightsLeavesTheOutput) {
  Case c({1, 4, 4, 1, 1, 2, 3, 1, 1}, 27, 2);
  const auto before = c.rig.run();
  c.layer.ReleaseWeights();
  c.layer.ReleaseWeights();
  EXPECT_TRUE(c.layer.weights.empty());
  EXPECT_EQ(c.rig.run(), before);
}

TEST(ConvLayerFits, AGroupedFileWithTheLayersTotalLoadsAndIsLeftAlone) {
  Case c({1, 4, 4, 4, 2, 3, 3, 1, 1}, 28);
  c.layer.output_channels = 6;  // both groups together; each weight tensor has rows for 3
  const auto shape = conv_record_shape(c.layer, *c.input, /*grouped=*/true);
  reshape(*c.output, *shape);
  EXPECT_TRUE(fits(c.layer));
  EXPECT_EQ(c.rig.run(), std::vector<float>(shape->count, 0.0F));
}

TEST(ConvLayerFits, RefusesWhatWouldGoOutOfRange) {
  const auto refused = [](auto change) {
    Case c({1, 6, 6, 4, 2, 3, 3, 1, 1}, 29, 3);
    EXPECT_TRUE(fits(c.layer));
    change(c);
    const bool fit = static_cast<bool>(fits(c.layer));
    c.rig.run();  // must not touch anything either
    return !fit;
  };
  constexpr auto kHuge = std::numeric_limits<std::int32_t>::max();
  EXPECT_TRUE(refused([](Case& c) { c.layer.stride_h = 0; }));
  EXPECT_TRUE(refused([](Case& c) { c.layer.stride_w = -1; }));
  EXPECT_TRUE(refused([](Case& c) { c.layer.groups = 0; }));
  EXPECT_TRUE(refused([](Case& c) { c.layer.pad_w = -1; }));
  EXPECT_TRUE(refused([](Case& c) { c.layer.dilation_h = 0; }));
  EXPECT_TRUE(refused([](Case& c) { c.layer.kernel_h = -3; }));
  EXPECT_TRUE(refused([](Case& c) { c.layer.output_channels = -3; }));
  EXPECT_TRUE(refused([](Case& c) { c.layer.output_channels = kHuge; }));
  EXPECT_TRUE(refused([](Case& c) { c.layer.pad_h = c.layer.pad_w = kHuge; }));
  EXPECT_TRUE(refused([](Case& c) {
    c.layer.pad_h = c.layer.pad_w = kHuge;
    c.layer.kernel_h = c.layer.kernel_w = kHuge;
  }));
  EXPECT_TRUE(refused([](Case& c) { reshape(*c.layer.weights[1], *make_shape(3, 8, 1, 1, 0)); }));
  EXPECT_TRUE(refused([](Case& c) { reshape(*c.output, *make_shape(1, 5, 6, 6, 0)); }));
  EXPECT_TRUE(refused([](Case& c) { reshape(*c.layer.biases[0], *make_shape(1, 1, 1, 0, 0)); }));
}

TEST(ConvLayerFits, ALayerWithoutOutputDoesNothing) {
  Case c({1, 6, 6, 1, 1, 3, 3, 1, 1}, 30);
  c.layer.outputs.clear();
  EXPECT_TRUE(fits(c.layer));
  c.rig.set_up();
  c.layer.Reshape();
  EXPECT_TRUE(c.layer.Forward(0));
}

}  // namespace
}  // namespace ravu::test
