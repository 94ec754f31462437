// Finding clDNN's drop 2 among libraries that are not there, lack functions or are other drops.
#include "graph/cldnn_library.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "graph/cldnn_handles.h"

namespace cldnn {
namespace {

using ::testing::AllOf;
using ::testing::HasSubstr;
using ::testing::StartsWith;

// The build makes these libraries: they have clDNN's names and do nothing.
std::string fake_file(const std::string& name) {
  return std::string(RAVU_FAKE_FOLDER) + "/" + name;
}

std::string refusal_of(const std::string& name) {
  std::string reason;
  EXPECT_EQ(open_library(fake_file(name), reason), nullptr);
  return reason;
}

TEST(ClDnnLibrary, DropTwoIsTaken) {
  std::string reason;
  const LibraryPtr library = open_library(fake_file("fake_drop2.so"), reason);
  ASSERT_NE(library, nullptr) << reason;
  EXPECT_NE(library->create_engine, nullptr);
  EXPECT_NE(library->type_id(Kind::kSoftmax), library->type_id(Kind::kActivation));
}

TEST(ClDnnLibrary, OtherDropsAreRefused) {
  EXPECT_THAT(refusal_of("fake_drop1.so"),
              HasSubstr("is not clDNN's drop 2 but an earlier one: has no cldnn_proposal_type_id"));
  EXPECT_THAT(refusal_of("fake_drop3.so"), HasSubstr("is not clDNN's drop 2 but a later one"));
}

TEST(ClDnnLibrary, ALibraryThatLacksAFunctionIsRefusedByName) {
  EXPECT_THAT(refusal_of("fake_incomplete.so"),
              HasSubstr("is not clDNN's drop 2: has no cldnn_lrn_type_id"));
}

TEST(ClDnnLibrary, TheFirstCandidateThatOpensIsTaken) {
  const LibraryPtr library = load_library(
      {"libravu_no_such_library.so", fake_file("fake_drop1.so"), fake_file("fake_drop2.so")});
  EXPECT_NE(library, nullptr);
}

TEST(ClDnnLibrary, WithoutACandidateTheErrorSaysWhatWasLookedFor) {
  try {
    load_library({"libravu_no_such_library.so", fake_file("fake_drop3.so")});
    ADD_FAILURE() << "nothing was raised";
  } catch (const error& e) {
    EXPECT_THAT(e.what(),
                AllOf(StartsWith("failed to create engine: "), HasSubstr("libravu_no_such_library"),
                      HasSubstr("fake_drop3.so is not clDNN's drop 2")));
  }
}

TEST(ClDnnLibrary, ClDnnItselfComesBeforeTheProvider) {
  const auto candidates = library_candidates();
  EXPECT_THAT(candidates.front(), HasSubstr("clDNN64"));
  EXPECT_THAT(candidates.at(1), HasSubstr("ravu_cldnn"));
}

TEST(ClDnnLibrary, EveryKindHasAName) {
  EXPECT_STREQ(name_of(Kind::kActivation), "activation");
  EXPECT_STREQ(name_of(Kind::kFullyConnected), "fully_connected");
  EXPECT_STREQ(name_of(Kind::kSoftmax), "softmax");
}

}  // namespace
}  // namespace cldnn
