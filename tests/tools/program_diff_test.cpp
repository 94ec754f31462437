// ravu diff on whole models, on the processor: what it finds, prints and returns.
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
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::StartsWith;

// Six layers; the seed is that of the second convolution's weights.
ModelBuilder network_with(unsigned seed) {
  return ModelBuilder(8, 3)
      .set("data_mean", random_tensor({1, 8, 8, 3}, 9))
      .add_layer(conv_record("data", "c1", {.inputs = 3, .kernels = 4}, 1))
      .add_layer(relu_record("c1", "c1"))
      .add_layer(pool_record("c1", "p", "max", 2, 2))
      .add_layer(conv_record("p", "c2", {.inputs = 4, .kernels = 4, .padding = 1}, seed))
      .add_layer(relu_record("c2", "c2"))
      .add_layer(neuron_record("c2", "scores", 36, 5, 7));
}

class ProgramDiff : public ::testing::Test {
 protected:
  json diff(std::vector<std::string> arguments, int code) {
    arguments.insert(arguments.begin(), "diff");
    arguments.emplace_back("--json");
    const Outcome outcome = run_ravu(arguments);
    EXPECT_EQ(outcome.code, code) << outcome.err;
    return outcome.out.empty() ? json() : json::parse(outcome.out);
  }

  const TemporaryFile model{network_with(3).bytes()};
  const TemporaryFile altered{network_with(4).bytes()};
};

TEST_F(ProgramDiff, NamesExactlyTheLayerWhoseWeightsWereAltered) {
  const json report = diff({model.path(), altered.path()}, 1);
  EXPECT_EQ(report["same"], false);
  EXPECT_EQ(report["first_above"]["index"], 3);
  EXPECT_EQ(report["first_above"]["class"], "conv");
  EXPECT_EQ(report["first_above"]["output"], "c2");
  ASSERT_EQ(report["layers"].size(), 6U);
  for (std::size_t i = 0; i < 3; ++i) EXPECT_EQ(report["layers"][i]["error"], 0) << i;
  for (const json& layer : report["layers"]) EXPECT_GT(layer["range"], 0);
  EXPECT_EQ(report["first"]["mode"], 0);
  EXPECT_EQ(report["second"]["model"], altered.path());
}

TEST_F(ProgramDiff, AModelAgreesWithItself) {
  const json report = diff({model.path(), "--mode", "0", "--mode", "0"}, 0);
  EXPECT_EQ(report["same"], true);
  EXPECT_EQ(report["first_above"], json());
  EXPECT_EQ(report["image"], json());
  for (const json& layer : report["layers"]) EXPECT_EQ(layer["error"], 0);
}

TEST_F(ProgramDiff, TheToleranceDecides) {
  const json report = diff({model.path(), altered.path(), "--tolerance", "1000"}, 0);
  EXPECT_EQ(report["same"], true);
  EXPECT_GT(report["layers"][3]["relative"], 0);
  EXPECT_EQ(report["tolerance"], 1000);
}

TEST_F(ProgramDiff, AnImageTakesThePlaceOfSeededValues) {
  const TemporaryFile red{encode_png(solid(8, 8, 255, 0, 0))};
  const json report = diff({model.path(), red.path(), "--mode", "0", "--mode", "0"}, 0);
  EXPECT_EQ(report["image"], red.path());
  const json seeded = diff({model.path(), "--mode", "0", "--mode", "0"}, 0);
  EXPECT_NE(report["layers"][0]["range"], seeded["layers"][0]["range"]);
  const json two = diff({model.path(), altered.path(), red.path()}, 1);
  EXPECT_EQ(two["first_above"]["index"], 3);
}

TEST_F(ProgramDiff, TextEndsWithTheVerdict) {
  const Outcome outcome = run_ravu({"diff", model.path(), altered.path()});
  EXPECT_EQ(outcome.code, 1);
  EXPECT_THAT(outcome.err, IsEmpty());
  const auto lines = lines_of(outcome.out);
  EXPECT_EQ(lines[0], std::string("first    ") + model.path() + ", run mode 0");
  EXPECT_EQ(lines[1], std::string("second   ") + altered.path() + ", run mode 0");
  EXPECT_EQ(lines[2], "input    seeded values");
  EXPECT_EQ(lines.back(), "the first layer above 0.0001 of their range is 3: conv c2");
  EXPECT_THAT(run_ravu({"diff", model.path(), model.path()}).out,
              HasSubstr("\nall layers agree within 0.0001 of their range\n"));
}

TEST_F(ProgramDiff, LayersOfOneModelAloneAreListed) {
  ModelBuilder longer = network_with(3);
  longer.add_layer(layer("max", {"scores"}, {"prob"}));
  const TemporaryFile other{longer.bytes()};
  const json report = diff({model.path(), other.path()}, 0);
  EXPECT_THAT(report["only_in_first"], IsEmpty());
  EXPECT_THAT(report["only_in_second"], ElementsAre("max prob"));
}

#ifdef RAVU_WITH_FIXPOINT
TEST_F(ProgramDiff, ShowsWhatEightBitsCost) {
  const json report = diff({model.path(), "--mode", "0", "--mode", "3", "--tolerance", "0.1"}, 0);
  EXPECT_GT(report["layers"][0]["relative"], 0);
  EXPECT_LT(report["layers"][0]["relative"], 0.1);
}
#endif

TEST_F(ProgramDiff, ModelsWithOtherInputsAreAFailure) {
  const TemporaryFile other{colour_model().bytes()};
  const Outcome outcome = run_ravu({"diff", model.path(), other.path()});
  EXPECT_EQ(outcome.code, 1);
  EXPECT_THAT(outcome.out, IsEmpty());
  EXPECT_THAT(lines_of(outcome.err),
              ElementsAre(std::string("ravu: ") + other.path() + ": takes 1x2x2x3, but " +
                          model.path() + " takes 1x8x8x3"));
}

TEST_F(ProgramDiff, ADamagedImageIsAFailureThatNamesIt) {
  Bytes cut = encode_png(solid(8, 8, 255, 0, 0));
  cut.resize(20);
  const TemporaryFile image{cut};
  const Outcome outcome =
      run_ravu({"diff", model.path(), image.path(), "--mode", "0", "--mode", "0"});
  EXPECT_EQ(outcome.code, 1);
  EXPECT_THAT(outcome.err, StartsWith(std::string("ravu: ") + image.path() + ": "));
}

TEST_F(ProgramDiff, FilesAndModesHaveToFitTogether) {
  const TemporaryFile red{encode_png(solid(8, 8, 255, 0, 0))};
  const std::string m = model.path();
  const std::vector<std::vector<std::string>> misuses{
      {m},
      {m, "--mode", "0"},
      {m, red.path()},
      {m, "--mode", "0", "--mode", "0", "--mode", "0"},
      {m, m, "--mode", "0", "--mode", "0"},
      {m, m, m},
      {m, m, red.path(), "--mode", "1"},
      {m, m, red.path(), m},
      {m, m, "--tolerance", "-1"}};
  for (std::vector<std::string> arguments : misuses) {
    arguments.insert(arguments.begin(), "diff");
    const Outcome outcome = run_ravu(arguments);
    EXPECT_EQ(outcome.code, 2) << ::testing::PrintToString(arguments);
    EXPECT_THAT(outcome.out, IsEmpty());
  }
  EXPECT_THAT(run_ravu({"diff", m, "photo.gif", "--mode", "0", "--mode", "2"}).err,
              HasSubstr("photo.gif is no JPEG or PNG file"));
}

}  // namespace
}  // namespace ravu::test
