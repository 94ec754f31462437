// The program in the GPU run modes, on whatever OpenCL device there is.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include "support/encoders.h"
#include "support/program.h"
#include "support/records.h"
#include "support/tool_models.h"

namespace ravu::test {
namespace {

using nlohmann::json;
using ::testing::StartsWith;

json result_of(const std::vector<std::string>& arguments) {
  const Outcome outcome = run_ravu(arguments);
  EXPECT_EQ(outcome.code, 0) << outcome.err;
  return outcome.code == 0 ? json::parse(outcome.out) : json();
}

TEST(ProgramGpu, ClassifiesAsTheProcessorDoes) {
  const TemporaryFile model{colour_model().bytes()};
  const TemporaryFile red{encode_png(solid(5, 3, 255, 51, 0))};
  const auto scores = [&](const char* mode) {
    return result_of({"classify", model.path(), red.path(), "--json", "--mode", mode});
  };
  const json processor = scores("0");
  EXPECT_EQ(scores("2"), processor);
  EXPECT_EQ(scores("4"), processor);
}

TEST(ProgramGpu, MeasuresAPass) {
  const TemporaryFile model{small_network().bytes()};
  const json report = result_of({"bench", model.path(), "--json", "--repeats", "2", "--mode", "2"});
  EXPECT_EQ(report["mode"], 2);
  EXPECT_GT(report["pass"]["median_ms"], 0);
}

// Each layer at the end of a network of its own, against the processor.
void expect_no_difference(const std::string& folder, const std::string& name) {
  const json report =
      result_of({"diff", folder + '/' + name + ".ravu", "--mode", "0", "--mode", "2", "--json"});
  EXPECT_EQ(report["same"], true) << report["first_above"];
  EXPECT_GT(report["layers"].size(), 5U);
  for (const json& layer : report["layers"]) EXPECT_FALSE(layer.contains("problem")) << layer;
}

TEST(ProgramGpu, EveryLayerOfTheClassifierAgreesWithTheProcessor) {
  expect_no_difference(RAVU_DEMO_FOLDER, "characters");
}

TEST(ProgramGpu, EveryLayerOfTheDetectorAgreesWithTheProcessor) {
  expect_no_difference(RAVU_SIGNS_FOLDER, "signs");
}

TEST(ProgramGpu, ADifferenceBetweenTheModesIsFoundWhereItArises) {
  // The greatest of two values is computed on a GPU alone.
  const ModelBuilder model =
      ModelBuilder(4, 2)
          .add_layer(conv_record("data", "a", {.inputs = 2, .kernels = 2}, 1))
          .add_layer(conv_record("data", "b", {.inputs = 2, .kernels = 2}, 3))
          .add_layer(relu_record("a", "a"))
          .add_layer(eltwise_record({"a", "b"}, "greatest", "max"))
          .add_layer(conv_record("greatest", "c", {.inputs = 2, .kernels = 2, .ksize = 1}, 5));
  const TemporaryFile file{model.bytes()};
  for (const char* mode : {"2", "4"}) {
    const Outcome outcome =
        run_ravu({"diff", file.path(), "--mode", "0", "--mode", mode, "--json"});
    EXPECT_EQ(outcome.code, 1) << outcome.err;
    const json report = json::parse(outcome.out);
    EXPECT_EQ(report["first_above"]["output"], "greatest");
    EXPECT_EQ(report["first_above"]["index"], 3);
  }
}

TEST(ProgramGpu, ALayerBesideAnotherOutputIsNotCompared) {
  // Of their second input prior boxes read the size alone, so on a GPU nobody reads its values.
  const ModelBuilder model =
      ModelBuilder(4, 2)
          .add_layer(conv_record("data", "map", {.inputs = 2, .kernels = 2}, 1))
          .add_layer(conv_record("data", "image", {.inputs = 2, .kernels = 2}, 3))
          .add_layer(prior_record({"map", "image"}, "priors", {}));
  const TemporaryFile file{model.bytes()};
  const json report = result_of({"diff", file.path(), "--mode", "0", "--mode", "2", "--json"});
  EXPECT_EQ(report["layers"][2]["problem"], "stands beside another output of the same network");
  EXPECT_EQ(report["layers"][1]["above"], false);
}

TEST(ProgramGpu, ALayerThatIsRefusedIsNamed) {
  const ModelBuilder model =
      ModelBuilder(4, 2)
          .add_layer(conv_record("data", "a", {.inputs = 2, .kernels = 2}, 1))
          .add_layer(scale_record("a", "s", {1, 1, 1, 3}, false));
  const TemporaryFile file{model.bytes()};
  const Outcome outcome = run_ravu({"diff", file.path(), "--mode", "0", "--mode", "2"});
  EXPECT_EQ(outcome.code, 1);
  EXPECT_THAT(outcome.err, StartsWith("ravu: layer 1 (scale s): run mode 2: "));
}

TEST(ProgramGpu, WithoutADeviceSaysWhatFailed) {
  const TemporaryFile model{small_network().bytes()};
  const NoOpenClDevices none;
  const Outcome outcome = run_ravu({"bench", model.path(), "--mode", "2"});
  EXPECT_EQ(outcome.code, 1);
  EXPECT_THAT(outcome.err, StartsWith("ravu: run mode 2: failed to create engine: "));
}

}  // namespace
}  // namespace ravu::test
