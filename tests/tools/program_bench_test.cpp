// ravu bench: what it reports, never how fast it is.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <nlohmann/json.hpp>

#include "support/program.h"
#include "support/tool_models.h"

namespace ravu::test {
namespace {

using nlohmann::json;
using ::testing::HasSubstr;
using ::testing::Not;

class ProgramBench : public ::testing::Test {
 protected:
  json bench(std::vector<std::string> more) {
    std::vector<std::string> arguments{"bench", model.path(), "--json", "--repeats", "3"};
    arguments.insert(arguments.end(), more.begin(), more.end());
    const Outcome outcome = run_ravu(arguments);
    EXPECT_EQ(outcome.code, 0) << outcome.err;
    return json::parse(outcome.out);
  }

  const TemporaryFile model{small_network().bytes()};
};

TEST_F(ProgramBench, ReportsTimesInOrderAndTheSpeedThatFollows) {
  const json report = bench({"--batch", "2", "--warm-up", "1", "--threads", "1"});
  EXPECT_EQ(report["input"], json({2, 8, 8, 3}));
  EXPECT_EQ(report["mode"], 0);
  EXPECT_EQ(report["threads"], 1);
  EXPECT_EQ(report["warm_up"], 1);
  EXPECT_EQ(report["repeats"], 3);
  const json& pass = report["pass"];
  EXPECT_EQ(pass["multiply_adds"], 2 * 7584);
  EXPECT_GT(pass["min_ms"], 0);
  EXPECT_LE(pass["min_ms"], pass["median_ms"]);
  EXPECT_LE(pass["median_ms"], pass["max_ms"]);
  EXPECT_NEAR(pass["gflops_at_median"].get<double>(),
              2e-6 * 2 * 7584 / pass["median_ms"].get<double>(), 1e-9);
  EXPECT_FALSE(report.contains("layers"));
  EXPECT_FALSE(report.contains("reference"));
}

TEST_F(ProgramBench, LayersAddOneEntryPerLayer) {
  const json report = bench({"--layers"});
  ASSERT_EQ(report["layers"].size(), 6U);
  EXPECT_EQ(report["layers"][0]["class"], "conv");
  EXPECT_EQ(report["layers"][0]["kernel"], "direct");
  EXPECT_FALSE(report["layers"][5].contains("kernel"));
  EXPECT_EQ(report["layers"][0]["multiply_adds"], 6912);
  EXPECT_GT(report["layers"][0]["min_ms"], 0);
  EXPECT_EQ(report["layers"][5]["output"], "prob");
  EXPECT_EQ(report["layers"][1]["kernel"], "fused");
  EXPECT_GT(report["peak"]["gflops_at_min"], 0);
}

TEST_F(ProgramBench, TheReferenceGivesTheRatio) {
  const json report = bench({"--reference"});
  EXPECT_EQ(report["reference"]["side"], 1024);
  EXPECT_GT(report["reference"]["gflops_at_min"], 0);
  EXPECT_NEAR(report["pass_to_reference_at_min"].get<double>(),
              report["pass"]["gflops_at_min"].get<double>() /
                  report["reference"]["gflops_at_min"].get<double>(),
              1e-9);
}

TEST_F(ProgramBench, LoadTimesEveryStageBesideReading) {
  const json report = bench({"--load"});
  EXPECT_EQ(report["bytes"], std::filesystem::file_size(model.path()));
  for (const char* stage : {"read", "load", "set_up", "first_pass", "second_pass"}) {
    EXPECT_GT(report[stage]["min_ms"], 0) << stage;
  }
  const std::string text = run_ravu({"bench", model.path(), "--repeats", "2", "--load"}).out;
  EXPECT_THAT(text, HasSubstr("second pass"));
}

TEST_F(ProgramBench, TextNamesTheColumns) {
  const std::string text = run_ravu({"bench", model.path(), "--repeats", "2", "--layers"}).out;
  EXPECT_THAT(text, HasSubstr("min ms"));
  EXPECT_THAT(text, HasSubstr("GF/s at median"));
  EXPECT_THAT(text, HasSubstr("neuron"));
  EXPECT_THAT(text, HasSubstr("% of peak"));
  EXPECT_THAT(text, Not(HasSubstr("sgemm")));
}

TEST_F(ProgramBench, AModelWithoutMultiplyAddsIsMeasuredToo) {
  const TemporaryFile softmax(
      ModelBuilder(2, 3).add_layer(layer("max", {"data"}, {"prob"})).bytes());
  const Outcome outcome =
      run_ravu({"bench", softmax.path(), "--repeats", "2", "--layers", "--reference"});
  EXPECT_EQ(outcome.code, 0);
}

}  // namespace
}  // namespace ravu::test
