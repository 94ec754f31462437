// The fixed-point library from the engine's side: all of its functions or none, and why.
#include "graph/fixed_point_library.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "fakes/fake_fixpoint.h"
#include "graph/cpu_backend.h"

namespace ravu::test {
namespace {

using ::testing::HasSubstr;

TEST(FixedPointLibrary, HasEveryFunctionUnderItsOrdinal) {
  const FixedPointLibrary library = resolve_fixed_point_library(fake_fixpoint_function);
  EXPECT_TRUE(library);
  EXPECT_EQ(library.problem, "");
  for (const std::uint32_t ordinal : {8U, 10U, 12U, 13U, 14U, 23U, 25U, 27U, 28U, 29U}) {
    EXPECT_NE(fake_fixpoint_function(ordinal), nullptr);
  }
  EXPECT_EQ(reinterpret_cast<fixpoint::Function>(library.conv_configure),
            fake_fixpoint_function(14));
  EXPECT_EQ(reinterpret_cast<fixpoint::Function>(library.fully_connect_run),
            fake_fixpoint_function(25));
}

TEST(FixedPointLibrary, OneMissingFunctionLeavesNoneAndIsNamed) {
  const FixedPointLibrary library = resolve_fixed_point_library([](std::uint32_t ordinal) {
    return ordinal == 27 ? nullptr : fake_fixpoint_function(ordinal);
  });
  EXPECT_FALSE(library);
  EXPECT_EQ(library.conv_create, nullptr);
  EXPECT_EQ(library.problem,
            "the fixed-point library has no function \"fully connected: set input\" (ordinal 27)");
}

TEST(FixedPointLibrary, AFileThatIsNotThereIsNamed) {
  const FixedPointLibrary library = open_fixed_point_library("/nowhere/libravu_fixpoint.so");
  EXPECT_FALSE(library);
  EXPECT_THAT(library.problem, HasSubstr("cannot be loaded: "));
  EXPECT_THAT(library.problem, HasSubstr("/nowhere/libravu_fixpoint.so"));
}

#ifdef __linux__
TEST(FixedPointLibrary, AnotherLibraryIsNotOne) {
  const FixedPointLibrary library = open_fixed_point_library("libm.so.6");
  EXPECT_FALSE(library);
  EXPECT_EQ(library.problem,
            "libm.so.6 is no fixed-point library: it does not export ravu_fixpoint_function");
}
#endif

TEST(FixedPointLibrary, IsLookedForByASetUpForItsModeAlone) {
  Network network;
  network.set_input(std::make_unique<Blob>());
  setup_cpu(network, 0);
  EXPECT_EQ(network.workspace.fixed_point, nullptr);
  setup_cpu(network, 3);
  ASSERT_NE(network.workspace.fixed_point, nullptr);
  const auto first = network.workspace.fixed_point;
  setup_cpu(network, 3);
  EXPECT_EQ(network.workspace.fixed_point, first);
}

// Its threads and others would keep each other from the processors.
TEST(FixedPointLibrary, LendsItsThreadsToTheLayersOfItsMode) {
  Network network;
  network.set_input(std::make_unique<Blob>());
  network.workspace.fixed_point = fake_fixed_point_library();
  kernels::Workers& workers = network.workspace.workers();
  setup_cpu(network, 3);
  EXPECT_NE(workers.team(), nullptr);
  EXPECT_EQ(workers.team(), network.workspace.fixed_point->run_tasks);
  setup_cpu(network, 0);
  EXPECT_EQ(workers.team(), nullptr);
}

}  // namespace
}  // namespace ravu::test
