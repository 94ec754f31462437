// Ordinals: every one of the interface has its function, no other has; Windows' list agrees.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <fstream>
#include <set>
#include <string>

#include "operators.h"

namespace ravu::fixpoint::test {
namespace {

const std::set<std::uint32_t> kOrdinals = {8,  10, 12, 13,  14,  23,  25,
                                           27, 28, 29, 101, 102, 103, 104};

TEST(Resolver, KnowsTheOrdinalsOfTheInterfaceAndNoOther) {
  EXPECT_THAT(kOrdinals,
              testing::UnorderedElementsAre(
                  kConvCreate, kConvRun, kConvSetInput, kConvFinish, kConvConfigure,
                  kFullyConnectCreate, kFullyConnectRun, kFullyConnectSetInput, kFullyConnectFinish,
                  kFullyConnectConfigure, kDestroy, kSetThreads, kExecutions, kRunTasks));
  std::set<Function> functions;
  for (std::uint32_t ordinal = 0; ordinal < 300; ++ordinal) {
    const Function function = ravu_fixpoint_function(ordinal);
    EXPECT_EQ(function != nullptr, kOrdinals.count(ordinal) == 1) << ordinal;
    if (function != nullptr) functions.insert(function);
  }
  EXPECT_EQ(functions.size(), kOrdinals.size());
  EXPECT_EQ(ravu_fixpoint_function(0xFFFFFFFF), nullptr);
}

TEST(Resolver, TheListForWindowsNamesTheSameOrdinals) {
  std::ifstream file(RAVU_FIXPOINT_DEF);
  std::set<std::uint32_t> listed;
  for (std::string line; std::getline(file, line);) {
    const std::size_t at = line.find('@');
    if (at != std::string::npos) {
      listed.insert(static_cast<std::uint32_t>(std::stoul(line.substr(at + 1))));
    }
  }
  EXPECT_EQ(listed, kOrdinals);
}

}  // namespace
}  // namespace ravu::fixpoint::test
