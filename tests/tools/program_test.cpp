// What holds for every subcommand: exit codes, one line for each failure, clean streams.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "support/program.h"
#include "support/small_models.h"
#include "support/tool_models.h"

namespace ravu::test {
namespace {

using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::SizeIs;
using ::testing::StartsWith;

void expect_failure(const Outcome& outcome, const std::string& line) {
  EXPECT_EQ(outcome.code, 1);
  EXPECT_EQ(outcome.out, "");
  EXPECT_EQ(outcome.err, line + '\n');
}

TEST(Program, HelpGoesToStandardOutput) {
  const Outcome outcome = run_ravu({"--help"});
  EXPECT_EQ(outcome.code, 0);
  for (const char* name :
       {"classify", "detect", "inspect", "bench", "devices", "diff", "quantise"}) {
    EXPECT_THAT(outcome.out, HasSubstr(name));
    EXPECT_EQ(run_ravu({name, "--help"}).code, 0);
  }
  EXPECT_THAT(outcome.out, HasSubstr("convert"));  // their own help is Python's
  EXPECT_THAT(outcome.out, HasSubstr("verify"));
  EXPECT_THAT(outcome.err, IsEmpty());
}

TEST(Program, MisuseEndsWithTwoAndAMessage) {
  const std::vector<std::vector<std::string>> misuses{{},
                                                      {"unknown"},
                                                      {"inspect"},
                                                      {"inspect", "m", "--what"},
                                                      {"inspect", "m", "--tags", "--plan"},
                                                      {"inspect", "m", "--tags", "--batch", "2"},
                                                      {"classify", "m"},
                                                      {"classify", "m", "i", "--mode", "1"},
                                                      {"classify", "m", "i", "--mode", "x"},
                                                      {"classify", "m", "i", "--threads", "0"},
                                                      {"classify", "m", "i", "--top", "0"},
                                                      {"classify", "m", "i", "--fit", "stretch"},
                                                      {"detect", "m"},
                                                      {"detect", "m", "i", "--threshold", "1.5"},
                                                      {"detect", "m", "i", "--threshold", "x"},
                                                      {"detect", "m", "i", "--mode", "1"},
                                                      {"devices", "more"},
                                                      {"quantise", "m"},
                                                      {"quantise", "m", "o", "more"},
                                                      {"quantise", "m", "o", "--max-error", "-1"},
                                                      {"bench", "m", "--repeats", "0"},
                                                      {"bench", "m", "--batch", "-1"},
                                                      {"bench", "m", "--layers", "--mode", "2"},
                                                      {"bench", "m", "--load", "--layers"},
                                                      {"bench", "m", "--load", "--reference"},
                                                      {"bench", "m", "--load", "--warm-up", "9"}};
  for (const auto& arguments : misuses) {
    const Outcome outcome = run_ravu(arguments);
    EXPECT_EQ(outcome.code, 2) << ::testing::PrintToString(arguments);
    EXPECT_THAT(outcome.out, IsEmpty());
    EXPECT_NE(outcome.err, "");
  }
}

TEST(Program, AMissingModelIsOneLine) {
  const std::string reason =
      "ravu: /no/model: the file cannot be read, or is shorter than its header says";
  expect_failure(run_ravu({"inspect", "/no/model"}), reason);
  expect_failure(run_ravu({"inspect", "/no/model", "--tags"}), reason);
  expect_failure(run_ravu({"bench", "/no/model"}), reason);
  expect_failure(run_ravu({"classify", "/no/model", "image"}), reason);
  expect_failure(run_ravu({"detect", "/no/model", "image"}), reason);
  expect_failure(run_ravu({"quantise", "/no/model", "/no/output"}), reason);
  expect_failure(run_ravu({"diff", "/no/model", "/no/model"}), reason);
}

TEST(Program, AModelThatDoesNotLoadIsOneLineWithItsReason) {
  const TemporaryFile model(
      ModelBuilder(8, 3)
          .add_layer(layer("pool", {"data"}, {"pooled"}).add("psize", 3).add("mode", "max"))
          .bytes());
  expect_failure(
      run_ravu({"inspect", model.path()}),
      std::string("ravu: ") + model.path() + ": layer 0 (pool): stride: the key is missing");
}

TEST(Program, ABatchThatNoMemoryHoldsIsOneLine) {
  const TemporaryFile model(small_network().bytes());
  const Outcome outcome = run_ravu({"inspect", model.path(), "--batch", "4000000000"});
  EXPECT_EQ(outcome.code, 1);
  EXPECT_THAT(lines_of(outcome.err), SizeIs(1));
}

TEST(Program, ARunModeThatCannotBeHadIsOneLine) {
  const TemporaryFile model(small_network().bytes());
  const NoOpenClDevices none;
  for (const char* mode : {"2", "4"}) {
    const Outcome outcome = run_ravu({"bench", model.path(), "--mode", mode});
    EXPECT_EQ(outcome.code, 1);
    EXPECT_THAT(outcome.out, IsEmpty());
    EXPECT_THAT(lines_of(outcome.err), SizeIs(1));
    EXPECT_THAT(outcome.err, StartsWith(std::string("ravu: run mode ") + mode + ": failed to "));
  }
}

TEST(Program, TheEnginesNoticesStayOffStandardOutput) {
  const TemporaryFile model(
      ModelBuilder(2, 3).add_layer(layer("max", {"nowhere", "data"}, {"prob"})).bytes());
  const Outcome outcome = run_ravu({"inspect", model.path(), "--json"});
  EXPECT_EQ(outcome.code, 0);
  EXPECT_THAT(outcome.out, StartsWith("{"));
  EXPECT_THAT(outcome.err, HasSubstr("[WARNING]\tSoftmax still not hit nowhere."));
}

TEST(Program, EveryLayerClassCanBeInspectedAndMeasured) {
  for (const SmallModel& small : small_models()) {
    const TemporaryFile model(small.bytes);
    EXPECT_EQ(run_ravu({"inspect", model.path()}).code, 0) << small.name;
    EXPECT_EQ(run_ravu({"inspect", model.path(), "--tags"}).code, 0) << small.name;
    EXPECT_EQ(run_ravu({"bench", model.path(), "--layers", "--repeats", "2"}).code, 0)
        << small.name;
  }
}

TEST(Program, ResultsThatCannotBeWrittenAreAFailure) {
  const TemporaryFile model(small_network().bytes());
  const Outcome outcome = run_ravu({"inspect", model.path()}, "/dev/full");
  EXPECT_EQ(outcome.code, 1);
  EXPECT_THAT(outcome.err, StartsWith("ravu: cannot write the results: "));
}

}  // namespace
}  // namespace ravu::test
