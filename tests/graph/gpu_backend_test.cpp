// Set-up and forward runs on the fake: the order of calls, identifiers, the mean, what is copied.
#include "graph/gpu_backend.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "fakes/Built.h"
#include "graph/PrimitiveBuilder.h"
#include "graph/cpu_backend.h"
#include "support/blobs.h"
#include "support/records.h"

namespace ravu::test {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::StartsWith;

using Floats = std::vector<float>;

// Input "data" of 2 x 2 x 1, an activation "r".
ModelBuilder one_relu() {
  return ModelBuilder(2, 1).add_layer(relu_record("data", "r"));
}

TEST(GpuSetup, MakesItsCallsInOrder) {
  FakeCldnn fake;
  const auto network = network_of(one_relu());
  EXPECT_TRUE(setup_gpu(*network, /*release_weights=*/false, FakeCldnn::library()));
  EXPECT_THAT(fake.transcript,
              ElementsAre("create_topology", "create_engine 0 0", "type_id input_layout",
                          "add input_layout data 1x1x2x2", "type_id activation",
                          "add activation r <- data: slope 0", "build_program with 0 options",
                          "allocate_network", "release_program"));
  EXPECT_EQ(network->data_type, 132U);
  EXPECT_EQ(network->layout, kInterleaved);
}

TEST(GpuSetup, ReleasesTopologyNetworkAndEngineWithTheNetwork) {
  FakeCldnn fake;
  auto network = network_of(one_relu());
  setup_gpu(*network, /*release_weights=*/false, FakeCldnn::library());
  fake.transcript.clear();
  network.reset();
  EXPECT_THAT(fake.transcript,
              ElementsAre("release_topology", "release_network", "release_engine"));
  EXPECT_EQ(fake.live, 0);
}

TEST(GpuSetup, MapsWidthToXAndHeightToY) {
  FakeCldnn fake;
  const auto network = network_of(one_relu(), 3);
  network->change_input_shape(*make_shape(3, 5, 7, 2, kInterleaved));
  setup_gpu(*network, /*release_weights=*/false, FakeCldnn::library());
  EXPECT_THAT(fake.lines({"add"}).front(), "add input_layout data 3x2x7x5");
}

TEST(GpuSetup, UploadsAParameterBetweenLockAndUnlock) {
  FakeCldnn fake;
  const auto network = network_of(ModelBuilder(1, 2).add_layer(prelu_record("data", "p", 2)));
  setup_gpu(*network, /*release_weights=*/false, FakeCldnn::library());
  const Texts calls = fake.transcript;
  EXPECT_THAT(Texts(calls.begin() + 4, calls.begin() + 13),
              ElementsAre("allocate_memory 1x1x2x1", "get_memory_layout", "lock_memory",
                          "unlock_memory", "type_id data", "add data p_0_slope", "release_memory",
                          "type_id activation", "add activation p <- data: slopes p_0_slope"));
}

TEST(GpuSetup, SubtractsTheMeanOnceForEachImage) {
  FakeCldnn fake;
  ModelBuilder model = one_relu();
  model.set("data_mean", tensor({1, 2, 2, 1}, {1, 2, 3, 4}));
  const auto network = network_of(model, 2);
  setup_gpu(*network, /*release_weights=*/false, FakeCldnn::library());
  EXPECT_THAT(fake.lines({"add"}),
              ElementsAre("add input_layout data 2x1x2x2", "add data data_mean",
                          "add eltwise data_0 <- data: with data_mean mode 1",
                          "add activation r <- data_0: slope 0"));
  EXPECT_EQ(fake.data("data_mean"), (Floats{1, 1, 2, 2, 3, 3, 4, 4}));
  EXPECT_THAT(fake.lines({"allocate_memory"}), ElementsAre("allocate_memory 2x1x2x2"));
}

TEST(GpuSetup, LeavesTheMeanOutWithoutPreprocessing) {
  FakeCldnn fake;
  ModelBuilder model = one_relu();
  model.set("data_mean", tensor({1, 2, 2, 1}, {1, 2, 3, 4})).set("need_crop", integer(0));
  const auto network = network_of(model);
  setup_gpu(*network, /*release_weights=*/false, FakeCldnn::library());
  EXPECT_THAT(fake.primitives(), ElementsAre("activation r <- data: slope 0"));
}

TEST(GpuSetup, NamesAMeanThatHasNoName) {
  FakeCldnn fake;
  const auto network = network_of(one_relu());
  network->preprocess = true;
  network->set_mean(make_blob({1, 2, 2, 1}, {1, 2, 3, 4}));
  setup_gpu(*network, /*release_weights=*/false, FakeCldnn::library());
  EXPECT_EQ(fake.primitives().front(), "eltwise data_0 <- data: with data_mean mode 1");
}

ModelBuilder planar_mean() {
  ModelBuilder model(2, 2);
  model.set("layout", text("BCHW"));
  model.set("data_mean", tensor({1, 2, 2, 2}, {1, 2, 3, 4, 10, 20, 30, 40}));
  return model.add_layer(relu_record("data", "r"));
}

TEST(GpuSetup, ReordersAPlanarMeanAtEverySetUp) {
  FakeCldnn fake;
  const auto network = network_of(planar_mean());
  setup_gpu(*network, /*release_weights=*/false, FakeCldnn::library());
  EXPECT_EQ(fake.data("data_mean"), (Floats{1, 10, 2, 20, 3, 30, 4, 40}));
  EXPECT_EQ(network->mean->layout, kPlanar);
  setup_gpu(*network, /*release_weights=*/false, FakeCldnn::library());
  EXPECT_EQ(fake.data("data_mean"), (Floats{1, 3, 10, 30, 2, 4, 20, 40}));
}

TEST(GpuSetup, PutsThePlanarMeanBackWhenItFails) {
  FakeCldnn fake;
  const auto network = network_of(planar_mean());
  const Floats before = values_of(*network->mean);
  fake.fail_at = 12;
  EXPECT_THROW(setup_gpu(*network, false, FakeCldnn::library()), cldnn::error);
  EXPECT_GT(fake.uploaded.size(), 0U);
  EXPECT_EQ(values_of(*network->mean), before);
}

TEST(GpuSetup, ReleasesTheWeightsInModeTwoAlone) {
  const ModelBuilder model =
      ModelBuilder(1, 2).add_layer(prelu_record("data", "p", 2)).add_layer(relu_record("p", "r"));
  for (const bool release : {false, true}) {
    FakeCldnn fake;
    const auto network = network_of(model);
    setup_gpu(*network, release, FakeCldnn::library());
    const auto& prelu = dynamic_cast<const BaseLayer&>(*network->layers[0]);
    setup_cpu(*network, 0);
    fill(*network->input, {-1, -1});
    forward_cpu(*network, 0);
    const bool computed = values_of(*last_output(prelu)) != Floats{0, 0};
    EXPECT_EQ(computed, !release);
  }
}

TEST(GpuSetup, ASecondOneStartsItsNamesAnewAndKeepsWhatTheFirstOneMade) {
  FakeCldnn fake;
  auto network = network_of(ModelBuilder(1, 2)
                                .add_layer(prelu_record("data", "p", 2))
                                .add_layer(relu_record("p", "p"))
                                .add_layer(prelu_record("p", "q", 2)));
  setup_gpu(*network, /*release_weights=*/false, FakeCldnn::library());
  const Texts first = fake.primitives();
  fake.transcript.clear();
  setup_gpu(*network, /*release_weights=*/false, FakeCldnn::library());
  EXPECT_EQ(fake.primitives(), first);
  EXPECT_THAT(fake.lines({"release_topology", "release_network", "release_engine"}), IsEmpty());
  network.reset();
  EXPECT_EQ(fake.live, 0);
}

TEST(GpuNames, AnInPlaceLayerTakesTheNumberOfAliases) {
  FakeCldnn fake;
  const auto network = network_of(ModelBuilder(2, 1)
                                      .add_layer(lrn_record("data", "c", 1))
                                      .add_layer(relu_record("c", "c"))
                                      .add_layer(relu_record("c", "c"))
                                      .add_layer(lrn_record("c", "d", 1)));
  setup_gpu(*network, /*release_weights=*/false, FakeCldnn::library());
  const Texts primitives = fake.primitives();
  EXPECT_THAT(primitives,
              ElementsAre(StartsWith("lrn c <- data"), StartsWith("activation c_0 <- c"),
                          StartsWith("activation c_0_1 <- c_0"), StartsWith("lrn d <- c_0_1")));
  EXPECT_EQ(network->aliases, (Aliases{{"c", "c_0"}, {"c_0", "c_0_1"}}));
}

TEST(GpuNames, AFreshIdentifierLeavesTheNamesOfOtherBlobsAlone) {
  FakeCldnn fake;
  const auto network = network_of(ModelBuilder(2, 1)
                                      .add_layer(lrn_record("data", "c", 1))
                                      .add_layer(relu_record("c", "c"))
                                      .add_layer(lrn_record("c", "c_0", 1)));
  setup_gpu(*network, /*release_weights=*/false, FakeCldnn::library());
  EXPECT_THAT(fake.primitives(),
              ElementsAre(StartsWith("lrn c <-"), StartsWith("activation c_1 <-"),
                          StartsWith("lrn c_0 <- c_1")));
}

TEST(GpuNames, ParametersHoldTheCountThatIsLeftOfTheInputsConsumers) {
  FakeCldnn fake;
  const auto network = network_of(ModelBuilder(1, 2)
                                      .add_layer(prelu_record("data", "a", 2))
                                      .add_layer(prelu_record("data", "b", 2))
                                      .add_layer(prelu_record("b", "b", 2)));
  setup_gpu(*network, /*release_weights=*/false, FakeCldnn::library());
  EXPECT_THAT(fake.primitives(), ElementsAre("activation a <- data: slopes a_1_slope",
                                             "activation b <- data: slopes b_0_slope",
                                             "activation b_0 <- b: slopes b_0_slope_"));
  EXPECT_EQ(network->input->consumers, 0U);
}

TEST(GpuNames, ABlobThatTwoLayersWriteHasTwoPrimitives) {
  FakeCldnn fake;
  const auto network = network_of(ModelBuilder(2, 1)
                                      .add_layer(lrn_record("data", "a", 1))
                                      .add_layer(lrn_record("data", "a", 3))
                                      .add_layer(lrn_record("a", "b", 1)));
  setup_gpu(*network, /*release_weights=*/false, FakeCldnn::library());
  EXPECT_THAT(fake.primitives(),
              ElementsAre(StartsWith("lrn a <- data"), StartsWith("lrn a_0 <- data"),
                          StartsWith("lrn b <- a_0")));
}

// On the processor the rectifier's output is its input's storage.
TEST(GpuNames, LaterReadersOfARectifiersInputReadWhatItWrote) {
  FakeCldnn fake;
  const auto network = network_of(ModelBuilder(2, 1)
                                      .add_layer(lrn_record("data", "a", 1))
                                      .add_layer(relu_record("a", "r"))
                                      .add_layer(lrn_record("a", "b", 1)));
  setup_gpu(*network, /*release_weights=*/false, FakeCldnn::library());
  EXPECT_THAT(fake.primitives(), ElementsAre(StartsWith("lrn a"), StartsWith("activation r <- a"),
                                             StartsWith("lrn b <- r")));
}

TEST(GpuNames, AChainOfAliasesIsFollowedToItsEnd) {
  EXPECT_EQ(resolve({{"a", "b"}, {"b", "c"}, {"d", "e"}}, "a"), "c");
  EXPECT_EQ(resolve({}, "a"), "a");
}

TEST(GpuForward, DoesNothingBeforeASetUp) {
  FakeCldnn fake;
  const auto network = network_of(one_relu());
  forward_gpu(*network);
  EXPECT_THAT(fake.transcript, IsEmpty());
}

TEST(GpuForward, MakesItsCallsInOrder) {
  FakeCldnn fake;
  const auto network = network_of(one_relu());
  setup_gpu(*network, /*release_weights=*/false, FakeCldnn::library());
  fake.transcript.clear();
  fake.add_output("r", make_layout({1, 1, 2, 2}, CLDNN_FLOAT32), {5, 6, 7, 8});
  fill(*network->input, {1, 2, 3, 4});
  forward_gpu(*network);
  EXPECT_THAT(
      fake.transcript,
      ElementsAre("allocate_memory 1x1x2x2", "get_memory_layout", "lock_memory", "unlock_memory",
                  "set_network_input data", "release_memory", "execute_network after 0 events",
                  "get_network_output_names", "get_network_output_names", "get_network_output r",
                  "wait_for_event", "get_memory_layout", "lock_memory", "unlock_memory",
                  "release_memory", "release_event"));
  EXPECT_EQ(fake.input, (Floats{1, 2, 3, 4}));
  EXPECT_EQ(values_of(result_of(*network)), (Floats{5, 6, 7, 8}));
  // Topology, network and engine stay.
  EXPECT_EQ(fake.live, 3);
}

TEST(GpuForward, HandsABatchOverWithTheImagesInnermostAndPutsTheResultBack) {
  FakeCldnn fake;
  const auto network = network_of(one_relu(), 2);
  setup_gpu(*network, /*release_weights=*/false, FakeCldnn::library());
  fake.add_output("r", make_layout({2, 1, 2, 2}, CLDNN_FLOAT32), {1, 5, 2, 6, 3, 7, 4, 8});
  fill(*network->input, {10, 20, 30, 40, 50, 60, 70, 80});
  forward_gpu(*network);
  EXPECT_EQ(fake.input, (Floats{10, 50, 20, 60, 30, 70, 40, 80}));
  EXPECT_EQ(values_of(result_of(*network)), (Floats{1, 2, 3, 4, 5, 6, 7, 8}));
}

TEST(GpuForward, TakesTheOutputWhoseIdentifierComesFirst) {
  FakeCldnn fake;
  const auto network = network_of(one_relu());
  setup_gpu(*network, /*release_weights=*/false, FakeCldnn::library());
  const auto layout = make_layout({1, 1, 2, 2}, CLDNN_FLOAT32);
  fake.add_output("r", layout, {1, 1, 1, 1});
  fake.add_output("a", layout, {2, 2, 2, 2});
  fake.add_output("z", layout, {3, 3, 3, 3});
  EXPECT_EQ(gpu_output_names(*network), (std::vector<std::string>{"a", "r", "z"}));
  forward_gpu(*network);
  EXPECT_EQ(values_of(result_of(*network)), (Floats{2, 2, 2, 2}));
  EXPECT_EQ(fake.live, 3);
}

TEST(GpuForward, RefreshesTheLastBlobAlone) {
  FakeCldnn fake;
  const auto network = network_of(ModelBuilder(2, 1)
                                      .add_layer(lrn_record("data", "a", 1))
                                      .add_layer(lrn_record("data", "b", 1)));
  setup_gpu(*network, /*release_weights=*/false, FakeCldnn::library());
  fake.add_output("b", make_layout({1, 1, 2, 2}, CLDNN_FLOAT32), {2, 2, 2, 2});
  forward_gpu(*network);
  EXPECT_EQ(values_of(*network->outputs[0]), (Floats{0, 0, 0, 0}));
  EXPECT_EQ(values_of(*network->outputs[1]), (Floats{2, 2, 2, 2}));
}

TEST(GpuForward, CopiesNoMoreThanBothSidesHold) {
  FakeCldnn fake;
  const auto network = network_of(one_relu());
  setup_gpu(*network, /*release_weights=*/false, FakeCldnn::library());
  fill(result_of(*network), {9, 9, 9, 9});
  fake.add_output("r", make_layout({1, 1, 3, 1}, CLDNN_FLOAT32), {1, 2, 3});
  forward_gpu(*network);
  EXPECT_EQ(values_of(result_of(*network)), (Floats{1, 2, 3, 9}));
  fake.add_output("r", make_layout({1, 1, 6, 1}, CLDNN_FLOAT32), {1, 2, 3, 4, 5, 6});
  forward_gpu(*network);
  EXPECT_EQ(values_of(result_of(*network)), (Floats{1, 2, 3, 4}));
}

TEST(GpuForward, CopiesASmallerResultOfABatchImageByImage) {
  FakeCldnn fake;
  const auto network = network_of(one_relu(), 2);
  setup_gpu(*network, /*release_weights=*/false, FakeCldnn::library());
  fake.add_output("r", make_layout({2, 1, 3, 1}, CLDNN_FLOAT32), {1, 4, 2, 5, 3, 6});
  forward_gpu(*network);
  EXPECT_EQ(values_of(result_of(*network)), (Floats{1, 2, 3, 0, 4, 5, 6, 0}));
}

TEST(GpuForward, ClosesTheGapsBetweenTheImagesDetections) {
  FakeCldnn fake;
  ModelBuilder model(1, 21);
  model.add_layer(reshape_record("data", "r", {-1, 1, 3, 7}));
  const auto network = network_of(model);
  setup_gpu(*network, /*release_weights=*/false, FakeCldnn::library());
  const GpuShape table{1, 1, 7, 4, CLDNN_FORMAT_BFYX};
  fill(result_of(*network), Floats(21, 9.0F));
  fake.add_output(
      "r", make_layout(table, CLDNN_FLOAT32),
      {0, 1, 2, 3, 4, 5, 6, -1, 0, 0, 0, 0, 0, 0, 1, 7, 7, 7, 7, 7, 7, -1, 0, 0, 0, 0, 0, 0});
  forward_gpu(*network);
  EXPECT_EQ(values_of(result_of(*network)),
            (Floats{0, 1, 2, 3, 4, 5, 6, 1, 7, 7, 7, 7, 7, 7, 0, 0, 0, 0, 0, 0, 0}));
}

TEST(GpuForward, LaysTheInputOutForItsShapeOfToday) {
  FakeCldnn fake;
  const auto network = network_of(one_relu());
  setup_gpu(*network, /*release_weights=*/false, FakeCldnn::library());
  fake.transcript.clear();
  network->change_input_shape(*make_shape(3, 2, 2, 1, kInterleaved));
  fake.add_output("r", make_layout({1, 1, 2, 2}, CLDNN_FLOAT32), {5, 6, 7, 8});
  forward_gpu(*network);
  EXPECT_EQ(fake.transcript.front(), "allocate_memory 3x1x2x2");
  EXPECT_THAT(fake.lines({"build_program", "allocate_network"}), IsEmpty());
}

}  // namespace
}  // namespace ravu::test
