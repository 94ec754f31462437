// The centre crop: offsets, the copied rows, when the loader builds one.
#include "layers/CropLayer.h"

#include <gtest/gtest.h>

#include <random>

#include "support/blobs.h"
#include "support/reference.h"

namespace ravu::test {
namespace {

TEST(CropLayerOffsets, AreHalfTheDifferenceRoundedDown) {
  CropLayer layer;
  layer.place_in_centre(256, 224, 3, kPlanar);
  EXPECT_EQ(layer.column_offset, 16);
  EXPECT_EQ(layer.row_offset, 16);
  EXPECT_EQ(layer.input_record.dims, (Dims{256, 256, 3, 1}));
  EXPECT_EQ(layer.input_record.count, 256U * 256 * 3);
  EXPECT_EQ(layer.input_record.layout, kPlanar);
  EXPECT_EQ(layer.reference_record.dims, (Dims{224, 224, 3, 1}));
  EXPECT_EQ(layer.reference_record.count, 224U * 224 * 3);
  layer.place_in_centre(225, 224, 3, kInterleaved);
  EXPECT_EQ(layer.column_offset, 0);
  layer.place_in_centre(224, 225, 3, kInterleaved);
  EXPECT_EQ(layer.column_offset, -1);  // an arithmetic shift
}

// Wires a crop of `batch` images.
void wire_crop(CropLayer& layer, LayerRig& rig, std::uint32_t batch, std::uint32_t input_size,
               std::uint32_t image_size, std::uint32_t channels, const std::vector<float>& values) {
  layer.place_in_centre(static_cast<std::int32_t>(input_size),
                        static_cast<std::int32_t>(image_size), static_cast<std::int32_t>(channels),
                        kInterleaved);
  rig.add_input({batch, input_size, input_size, channels}, values);
  rig.add_output({batch, image_size, image_size, channels});
  rig.set_up();
}

TEST(CropLayerForward, TakesRowsAndColumnsFromTheOffsetOn) {
  CropLayer layer;
  LayerRig rig(layer);
  const auto values = random_values(2U * 256 * 256 * 3, 1);
  wire_crop(layer, rig, 2, 256, 224, 3, values);
  const auto output = rig.run();
  ASSERT_EQ(output.size(), 2U * 224 * 224 * 3);
  // Image 1, row 5, all columns: row 21 of the input from column 16 on.
  const auto from = values.begin() + ((256 + 21) * 256 + 16) * 3;
  const auto to = output.begin() + (224 + 5) * 224 * 3;
  EXPECT_TRUE(std::equal(from, from + 224 * 3, to));
}

TEST(CropLayerForward, AgreesWithTheReferenceInEveryRunMode) {
  std::mt19937 random(620);
  const auto draw = [&](std::uint32_t low, std::uint32_t high) {
    return std::uniform_int_distribution<std::uint32_t>(low, high)(random);
  };
  for (unsigned i = 0; i < 300; ++i) {
    const std::uint32_t batch = draw(1, 3), image_size = draw(1, 12), channels = draw(1, 9);
    const std::uint32_t input_size = image_size + draw(2, 9);
    const auto values = random_values(std::size_t{batch} * input_size * input_size * channels, i);
    CropLayer layer;
    LayerRig rig(layer);
    wire_crop(layer, rig, batch, input_size, image_size, channels, values);
    EXPECT_EQ(rig.run(i % 5), reference::crop({batch, input_size, input_size, channels},
                                              (input_size - image_size) / 2, image_size, values))
        << "case " << i;
  }
}

TEST(CropLayerForward, WithBothOffsetsZeroNothingIsCopied) {
  CropLayer layer;
  LayerRig rig(layer);
  wire_crop(layer, rig, 1, 3, 2, 1, {1, 2, 3, 4, 5, 6, 7, 8, 9});
  EXPECT_EQ(rig.run(), (std::vector<float>{0, 0, 0, 0}));
}

TEST(CropLayerForward, LeavesTheOutputWhenTheInputWasMadeSmaller) {
  CropLayer layer;
  LayerRig rig(layer);
  wire_crop(layer, rig, 1, 6, 2, 1, random_values(36, 1));
  const auto before = rig.run();
  reshape(*layer.inputs.back(), *make_shape(1, 3, 3, 1, kInterleaved));
  layer.Reshape();
  EXPECT_EQ(rig.run(), before);
}

TEST(CropLayerReshape, OnlyTheBatchIsFollowed) {
  CropLayer layer;
  LayerRig rig(layer);
  wire_crop(layer, rig, 1, 6, 2, 3, random_values(108, 1));
  Blob& input = *layer.inputs.back();
  const Blob& output = *layer.outputs.back();
  const float* before = output.data;
  layer.Reshape();
  EXPECT_EQ(output.data, before);
  const auto values = random_values(324, 2);
  reshape(input, *make_shape(3, 6, 6, 3, kInterleaved));
  std::copy(values.begin(), values.end(), input.data);
  layer.Reshape();
  EXPECT_EQ(output.dims, (Dims{3, 2, 2, 3}));
  EXPECT_EQ(output.count, 36U);
  EXPECT_EQ(rig.run(), reference::crop({3, 6, 6, 3}, 2, 2, values));
}

TEST(CropLayerFits, RefusesWhatReachesBeyondItsBlobs) {
  CropLayer layer;
  EXPECT_FALSE(fits(layer));
  LayerRig rig(layer);
  wire_crop(layer, rig, 1, 6, 2, 3, {});
  EXPECT_TRUE(fits(layer));
  Blob& input = *layer.inputs.back();
  Blob& output = *layer.outputs.back();
  input.count = 107;
  EXPECT_FALSE(fits(layer));
  input.count = 108;
  output.count = 11;
  EXPECT_FALSE(fits(layer));
  output.count = 12;
  layer.row_offset = 5;
  EXPECT_FALSE(fits(layer));
  layer.row_offset = -1;
  EXPECT_FALSE(fits(layer));
  layer.row_offset = 0x7FFFFFFF;
  EXPECT_FALSE(fits(layer));
}

ModelBuilder cropped_model(int input_size, int image_size) {
  ModelBuilder model(input_size, 3);
  model.set("image_size", integer(image_size));
  return model.add_layer(layer("relu", {"data"}, {"out"}));
}

TEST(LoaderCrop, IsTheFirstLayerAndItsOutputTakesOverTheInputsName) {
  LoadOptions options;
  options.batch = 2;
  const auto result = load(cropped_model(256, 224), options);
  ASSERT_TRUE(result.network) << result.reason;
  const Network& network = *result.network;
  ASSERT_EQ(network.layers.size(), 2U);
  const auto* crop = dynamic_cast<CropLayer*>(network.layers[0].get());
  ASSERT_NE(crop, nullptr);
  EXPECT_EQ(crop->type, 5U);
  EXPECT_EQ(crop->column_offset, 16);
  EXPECT_EQ(crop->row_offset, 16);
  EXPECT_EQ(crop->inputs, std::vector<Blob*>{network.input.get()});
  EXPECT_EQ(network.input->consumers, 1U);
  const Blob& output = *crop->outputs.back();
  EXPECT_EQ(output.name, "data");
  EXPECT_EQ(output.dims, (Dims{2, 224, 224, 3}));
  EXPECT_EQ(output.producers, 1U);
  EXPECT_EQ(network.blobs_by_name.at("data"), &output);
  EXPECT_EQ(network.layers[1]->inputs, crop->outputs);
}

TEST(LoaderCrop, ADifferenceOfOneBuildsACropWithoutOffsets) {
  const auto result = load(cropped_model(225, 224));
  ASSERT_TRUE(result.network) << result.reason;
  const auto* crop = dynamic_cast<CropLayer*>(result.network->layers[0].get());
  ASSERT_NE(crop, nullptr);
  EXPECT_EQ(crop->column_offset, 0);
  EXPECT_EQ(crop->row_offset, 0);
}

TEST(LoaderCrop, IsNotBuiltForEqualSizesNorWhenSuppressed) {
  const auto equal = load(cropped_model(224, 224));
  ASSERT_TRUE(equal.network) << equal.reason;
  EXPECT_EQ(equal.network->layers.size(), 1U);
  EXPECT_TRUE(equal.network->preprocess);
  const auto suppressed = load(cropped_model(256, 224).set("need_crop", integer(0)));
  ASSERT_TRUE(suppressed.network) << suppressed.reason;
  EXPECT_EQ(suppressed.network->layers.size(), 1U);
  EXPECT_FALSE(suppressed.network->preprocess);
  EXPECT_EQ(suppressed.network->layers[0]->inputs.back(), suppressed.network->input.get());
}

TEST(LoaderCrop, HasTheInputsLayout) {
  const auto result = load(cropped_model(8, 4).set("layout", text("BCHW")));
  ASSERT_TRUE(result.network) << result.reason;
  EXPECT_EQ(result.network->layers[0]->outputs.back()->layout, kPlanar);
}

TEST(LoaderCrop, AnImageLargerThanTheInputIsRefused) {
  for (const int image_size : {225, 300, -1}) {
    EXPECT_FALSE(load(cropped_model(224, image_size)).network) << image_size;
  }
}

TEST(LoaderCrop, TheClassCropIsUnknown) {
  const auto result = load(cropped_model(8, 8).add_layer(layer("crop", {"data"}, {"cut"})));
  ASSERT_TRUE(result.network) << result.reason;
  EXPECT_EQ(result.network->layers.size(), 1U);
}

}  // namespace
}  // namespace ravu::test
