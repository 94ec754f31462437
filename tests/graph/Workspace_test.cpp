// The scratch area: alignment and growth.
#include "graph/Workspace.h"

#include <gtest/gtest.h>

#include <cstdint>

namespace ravu::test {
namespace {

TEST(Workspace, IsEmptyAtFirst) {
  const Workspace workspace;
  EXPECT_EQ(workspace.scratch(), nullptr);
  EXPECT_EQ(workspace.size(), 0U);
}

TEST(Workspace, IsAsLargeAsTheHungriestWishAndNeverShrinks) {
  Workspace workspace;
  workspace.reserve(10);
  workspace.reserve(1000);
  float* area = workspace.scratch();
  workspace.reserve(100);
  EXPECT_EQ(workspace.scratch(), area);
  EXPECT_EQ(workspace.size(), 1000U);
  area[0] = area[999] = 1.0F;
}

TEST(Workspace, IsAlignedTo64Bytes) {
  Workspace workspace;
  for (const std::size_t floats : {1U, 7U, 63U, 1001U}) {
    workspace.reserve(floats);
    EXPECT_EQ(reinterpret_cast<std::uintptr_t>(workspace.scratch()) % 64, 0U);
  }
}

TEST(Workspace, AWishOfZeroAllocatesNothing) {
  Workspace workspace;
  workspace.reserve(0);
  EXPECT_EQ(workspace.scratch(), nullptr);
}

}  // namespace
}  // namespace ravu::test
