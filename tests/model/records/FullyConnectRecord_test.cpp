// Record "neuron": keys, output shape, refusals.
#include <gtest/gtest.h>

#include "layers/FullyConnectLayer.h"
#include "support/blobs.h"

namespace ravu::test {
namespace {

Dictionary neuron_record(int outputs) {
  return layer("neuron", {"data"}, {"out"}).add("spec", Dictionary().add("num_output", outputs));
}

TEST(FullyConnectRecord, ReadsEveryKey) {
  const auto weights = random_values(48, 1);
  const auto loaded = load_layer(neuron_record(4)
                                     .add("weight", tensor({4, 12}, weights))
                                     .add("has_bias", 1)
                                     .add("bias", tensor({1, 1, 1, 4}, {1, 2, 3, 4}))
                                     .add("are_weights_transposed", 1),
                                 2, 3, /*batch=*/5);
  const auto* neuron = dynamic_cast<FullyConnectLayer*>(loaded.layer);
  ASSERT_NE(neuron, nullptr) << loaded.reason;
  EXPECT_EQ(neuron->type, 8U);
  EXPECT_TRUE(neuron->weights_transposed);
  EXPECT_TRUE(neuron->has_bias);
  EXPECT_EQ(values_of(*neuron->weights), weights);
  EXPECT_EQ(values_of(*neuron->bias), (std::vector<float>{1, 2, 3, 4}));
  EXPECT_EQ(neuron->outputs.back()->dims, (Dims{5, 1, 1, 4}));
}

TEST(FullyConnectRecord, WithoutTheOptionalKeyWeightsAreRowsPerFeature) {
  const auto loaded = load_layer(
      neuron_record(4).add("weight", tensor({12, 4}, random_values(48, 1))).add("has_bias", 0), 2,
      3);
  const auto* neuron = dynamic_cast<FullyConnectLayer*>(loaded.layer);
  ASSERT_NE(neuron, nullptr) << loaded.reason;
  EXPECT_FALSE(neuron->weights_transposed);
  EXPECT_EQ(neuron->bias, nullptr);
}

TEST(FullyConnectRecord, MissingKeysAreNamed) {
  EXPECT_EQ(load_layer(layer("neuron", {"data"}, {"out"}), 2, 3).reason,
            "layer 0 (neuron): spec: the key is missing");
  EXPECT_EQ(load_layer(neuron_record(4), 2, 3).reason,
            "layer 0 (neuron): weight: the key is missing");
}

TEST(FullyConnectRecord, MoreFeaturesThanTheInputHasAreRefused) {
  EXPECT_FALSE(
      load_layer(
          neuron_record(4).add("weight", tensor({13, 4}, random_values(52, 1))).add("has_bias", 0),
          2, 3)
          .network);
}

TEST(FullyConnectRecord, ANegativeOutputCountIsRefused) {
  EXPECT_FALSE(
      load_layer(
          neuron_record(-4).add("weight", tensor({12, 4}, random_values(48, 1))).add("has_bias", 0),
          2, 3)
          .network);
}

}  // namespace
}  // namespace ravu::test
