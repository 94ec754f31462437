// Parameters and multiply-adds, worked out by hand for a small network.
#include "common/layer_costs.h"

#include <gtest/gtest.h>

#include "model/network_reader.h"
#include "support/tool_models.h"

namespace ravu::test {
namespace {

using namespace tools;

std::unique_ptr<Network> load_small(std::uint32_t batch) {
  const Bytes model = small_network().bytes();
  LoadOptions options;
  options.batch = batch;
  return read_network(root_tag(model.data(), model.size()), options).network;
}

TEST(LayerCosts, ConvolutionsCountEachTapOfEachOutput) {
  const auto network = load_small(1);
  EXPECT_EQ(layer_costs(*network->layers[0]).parameters, 4U * 27 + 4);
  EXPECT_EQ(layer_costs(*network->layers[0]).multiply_adds, 64U * 4 * 27);
}

TEST(LayerCosts, GroupsReadOnlyTheirOwnChannels) {
  const auto network = load_small(1);
  EXPECT_EQ(layer_costs(*network->layers[3]).parameters, 2U * (6 + 3));
  EXPECT_EQ(layer_costs(*network->layers[3]).multiply_adds, 16U * 6 * 2);
}

TEST(LayerCosts, FullyConnectedLayersUseEachWeightOnce) {
  const auto network = load_small(1);
  EXPECT_EQ(layer_costs(*network->layers[4]).parameters, 480U);
  EXPECT_EQ(layer_costs(*network->layers[4]).multiply_adds, 480U);
}

TEST(LayerCosts, TheBatchMultipliesTheWorkAndNotTheParameters) {
  const auto network = load_small(3);
  EXPECT_EQ(layer_costs(*network->layers[0]).parameters, 112U);
  EXPECT_EQ(layer_costs(*network->layers[0]).multiply_adds, 3U * 6912);
  EXPECT_EQ(layer_costs(*network->layers[4]).multiply_adds, 3U * 480);
}

TEST(LayerCosts, NormalisationsScalesAndSlopesHaveParametersOnly) {
  const Bytes three = tensor({3}, {1, 2, 3});
  const Bytes model =
      ModelBuilder(4, 3)
          .add_layer(layer("bn", {"data"}, {"a"}).add("mean", three).add("var", three))
          .add_layer(layer("scale", {"a"}, {"b"})
                         .add("has_bias", 1)
                         .add("scales", three)
                         .add("bias", three))
          .add_layer(layer("prelu", {"b"}, {"c"}).add("channel_shared", 0).add("filler", three))
          .add_layer(layer("norm", {"c"}, {"d"})
                         .add("across_spatial", 0)
                         .add("channel_shared", 0)
                         .add("scale", three))
          .bytes();
  const auto network = read_network(root_tag(model.data(), model.size()), {}).network;
  ASSERT_TRUE(network);
  const std::uint64_t wanted[] = {6, 6, 3, 3};
  for (std::size_t i = 0; i < 4; ++i) {
    EXPECT_EQ(layer_costs(*network->layers[i]).parameters, wanted[i]) << i;
    EXPECT_EQ(layer_costs(*network->layers[i]).multiply_adds, 0U) << i;
  }
}

TEST(LayerCosts, OtherLayersCostNothing) {
  const auto network = load_small(1);
  for (const std::size_t index : {1, 2, 5}) {
    EXPECT_EQ(layer_costs(*network->layers[index]).parameters, 0U);
    EXPECT_EQ(layer_costs(*network->layers[index]).multiply_adds, 0U);
  }
}

TEST(LayerClass, IsTheKeywordOfTheModelFile) {
  const auto network = load_small(1);
  std::vector<std::string> classes;
  for (const auto& layer : network->layers) classes.push_back(layer_class(*layer));
  EXPECT_EQ(classes, (std::vector<std::string>{"conv", "relu", "pool", "gconv", "neuron", "max"}));
}

TEST(LayerClass, TheCropAtTheInputHasAName) {
  const Bytes model = small_network().set("input_size", integer(12)).bytes();
  const auto network = read_network(root_tag(model.data(), model.size()), {}).network;
  ASSERT_TRUE(network);
  EXPECT_EQ(layer_class(*network->layers[0]), "crop");
}

}  // namespace
}  // namespace ravu::test
