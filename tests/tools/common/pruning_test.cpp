// What is left of a network when it is cut down to one layer's ancestors.
#include "common/pruning.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "common/layer_costs.h"
#include "common/model.h"
#include "support/ModelBuilder.h"
#include "support/records.h"

namespace ravu::test {
namespace {

using ::testing::ElementsAre;

// Builds the model, cuts it down to the layer with this index and lists the layers that are left.
class Cut {
 public:
  Cut(const ModelBuilder& model, std::size_t target) {
    const TemporaryFile file(model.bytes());
    network = tools::open_model(file.path(), /*channel_mean=*/false, /*batch=*/1);
    tools::keep_ancestors(*network, target);
  }

  std::vector<std::string> layers() const {
    std::vector<std::string> titles;
    for (const auto& layer : network->layers) {
      titles.push_back(tools::layer_class(*layer) + ' ' + last_output(*layer)->name);
    }
    return titles;
  }

  std::unique_ptr<Network> network;
};

ModelBuilder branches() {
  return ModelBuilder(4, 2)
      .add_layer(conv_record("data", "a", {.inputs = 2, .kernels = 2}))
      .add_layer(relu_record("a", "a"))
      .add_layer(conv_record("data", "b", {.inputs = 2, .kernels = 2}))
      .add_layer(eltwise_record({"a", "b"}, "sum", "sum"))
      .add_layer(conv_record("a", "c", {.inputs = 2, .kernels = 2, .ksize = 1}));
}

TEST(KeepAncestors, DropsWhatComesBehindAndWhatIsNotRead) {
  EXPECT_THAT(Cut(branches(), 0).layers(), ElementsAre("conv a"));
  EXPECT_THAT(Cut(branches(), 2).layers(), ElementsAre("conv b"));
  EXPECT_THAT(Cut(branches(), 3).layers(),
              ElementsAre("conv a", "relu a", "conv b", "eltwise sum"));
  EXPECT_THAT(Cut(branches(), 4).layers(), ElementsAre("conv a", "relu a", "conv c"));
}

TEST(KeepAncestors, CountsReadersAnewAndListsTheTargetAsOutput) {
  const Cut cut(branches(), 1);
  EXPECT_THAT(cut.layers(), ElementsAre("conv a", "relu a"));
  const Blob& a = *last_output(*cut.network->layers.back());
  EXPECT_EQ(a.consumers, 1U);
  EXPECT_EQ(a.producers, 2U);
  EXPECT_NE(a.data, nullptr);
  EXPECT_THAT(cut.network->outputs, ElementsAre(&a, &a));
}

TEST(KeepAncestors, KeepsARectifierThatSharesItsInputsStorageWithALaterReader) {
  const ModelBuilder model =
      ModelBuilder(4, 2)
          .add_layer(conv_record("data", "a", {.inputs = 2, .kernels = 2}))
          .add_layer(relu_record("a", "b"))
          .add_layer(conv_record("a", "c", {.inputs = 2, .kernels = 2, .ksize = 1}));
  EXPECT_THAT(Cut(model, 2).layers(), ElementsAre("conv a", "relu b", "conv c"));
}

TEST(KeepAncestors, LeavesOutViewsThatNobodyReads) {
  const ModelBuilder model =
      ModelBuilder(4, 2)
          .add_layer(conv_record("data", "a", {.inputs = 2, .kernels = 2}))
          .add_layer(layer("flatten", {"a"}, {"f"}))
          .add_layer(permute_record("a", "p", /*need_permute=*/false, {0, 1, 2, 3}))
          .add_layer(conv_record("a", "c", {.inputs = 2, .kernels = 2, .ksize = 1}));
  EXPECT_THAT(Cut(model, 3).layers(), ElementsAre("conv a", "conv c"));
}

TEST(KeepAncestors, LeavesOutWhatALaterLayerOverwrites) {
  const ModelBuilder model =
      ModelBuilder(4, 2)
          .add_layer(conv_record("data", "a", {.inputs = 2, .kernels = 2}))
          .add_layer(conv_record("data", "a", {.inputs = 2, .kernels = 2}, 3))
          .add_layer(relu_record("a", "a"));
  EXPECT_THAT(Cut(model, 2).layers(), ElementsAre("conv a", "relu a"));
}

TEST(KeepAncestors, ATargetThatOthersReadBeforeItWritesHasStorage) {
  const ModelBuilder model =
      ModelBuilder(4, 2)
          .add_layer(conv_record("data", "a", {.inputs = 2, .kernels = 2}))
          .add_layer(conv_record("a", "b", {.inputs = 2, .kernels = 2, .ksize = 1}))
          .add_layer(eltwise_record({"a", "b"}, "a", "sum"));
  const Cut cut(model, 2);
  EXPECT_THAT(cut.layers(), ElementsAre("conv a", "conv b", "eltwise a"));
  EXPECT_NE(last_output(*cut.network->layers.back())->data, nullptr);
}

}  // namespace
}  // namespace ravu::test
