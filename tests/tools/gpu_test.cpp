// The program in the GPU run modes, on whatever OpenCL device there is.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include "support/encoders.h"
#include "support/program.h"
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

TEST(ProgramGpu, WithoutADeviceSaysWhatFailed) {
  const TemporaryFile model{small_network().bytes()};
  const NoOpenClDevices none;
  const Outcome outcome = run_ravu({"bench", model.path(), "--mode", "2"});
  EXPECT_EQ(outcome.code, 1);
  EXPECT_THAT(outcome.err, StartsWith("ravu: run mode 2: failed to create engine: "));
}

}  // namespace
}  // namespace ravu::test
