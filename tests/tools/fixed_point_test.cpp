// Run mode 3 in the program: it works where the library was built, and says why where it cannot.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <memory>

#include "common/failure.h"
#include "common/model.h"
#include "graph/fixed_point_library.h"
#include "ravu/ravu.h"
#include "support/program.h"
#include "support/tool_models.h"

namespace ravu::test {
namespace {

using ::testing::IsEmpty;

#ifdef RAVU_WITH_FIXPOINT
TEST(ProgramFixedPoint, RunsWhereTheLibraryWasBuilt) {
  const TemporaryFile model(small_network().bytes());
  const Outcome outcome = run_ravu({"bench", model.path(), "--mode", "3", "--repeats", "2"});
  EXPECT_EQ(outcome.code, 0);
  EXPECT_THAT(outcome.err, IsEmpty());
}
#endif

TEST(ProgramFixedPoint, AMissingLibraryIsAFailureThatSaysWhy) {
  const TemporaryFile file(small_network().bytes());
  const auto network = tools::open_model(file.path(), /*channel_mean=*/false, /*batch=*/1);
  network->workspace.fixed_point = std::make_shared<const FixedPointLibrary>();
  try {
    tools::set_up(*network, RAVU_MODE_FIXED_POINT);
    ADD_FAILURE() << "the set-up succeeded";
  } catch (const tools::Failure& failure) {
    EXPECT_STREQ(failure.what(), "run mode 3: no fixed-point library was looked for");
  }
}

}  // namespace
}  // namespace ravu::test
