// Files that are read in a run are never written in it, whatever they are called.
#include "common/input_files.h"

#include <gtest/gtest.h>

#include <filesystem>

#include "common/failure.h"
#include "support/temporary_folder.h"

namespace ravu::test {
namespace {

using namespace tools;
namespace fs = std::filesystem;

class InputFilesTest : public ::testing::Test {
 protected:
  const TemporaryFolder folder;
  const std::string image = folder.put("one.png", {1});
  const std::string model = folder.put("model.ravu", {2});
  const InputFiles inputs{{image}, model};
};

TEST_F(InputFilesTest, ContainsTheImagesAndTheModel) {
  EXPECT_TRUE(inputs.contains(image));
  EXPECT_TRUE(inputs.contains(model));
  EXPECT_FALSE(inputs.contains(folder.file("other.png")));
  EXPECT_FALSE(inputs.contains(folder.file("no/such/folder.png")));
}

TEST_F(InputFilesTest, SeesThroughOtherSpellings) {
  EXPECT_TRUE(inputs.contains(folder.file("./x/../one.png")));
  EXPECT_TRUE(inputs.contains(fs::relative(image).string()));
}

TEST_F(InputFilesTest, SeesThroughLinks) {
  fs::create_symlink(image, folder.file("soft.png"));
  fs::create_hard_link(image, folder.file("hard.png"));
  EXPECT_TRUE(inputs.contains(folder.file("soft.png")));
  EXPECT_TRUE(inputs.contains(folder.file("hard.png")));
}

TEST_F(InputFilesTest, AnOtherFileWithTwoNamesIsNoInput) {
  folder.put("two.png", {3});
  fs::create_hard_link(folder.file("two.png"), folder.file("again.png"));
  EXPECT_FALSE(inputs.contains(folder.file("again.png")));
}

TEST_F(InputFilesTest, CheckOutputThrowsForAnInputAlone) {
  EXPECT_THROW(inputs.check_output(image), Failure);
  EXPECT_NO_THROW(inputs.check_output(folder.file("other.png")));
  EXPECT_NO_THROW(inputs.check_output(""));
}

TEST_F(InputFilesTest, CopiesAreNamedAfterTheirImages) {
  EXPECT_EQ(name_copies("out", {"a/7.jpg", "b/8.b.png"}, inputs, ""),
            (std::vector<std::string>{"out/7.png", "out/8.b.png"}));
}

TEST_F(InputFilesTest, ATakenNameGetsANumber) {
  EXPECT_EQ(name_copies(folder.file(""), {image}, inputs, ""),
            (std::vector<std::string>{folder.file("one-2.png")}));
  EXPECT_EQ(name_copies("out", {"a/7.jpg", "b/7.png", "c/7.png"}, inputs, "out/7-2.png"),
            (std::vector<std::string>{"out/7.png", "out/7-3.png", "out/7-4.png"}));
}

TEST_F(InputFilesTest, ANameIsTakenByALinkToAnInputToo) {
  fs::create_directory(folder.file("out"));
  fs::create_symlink(image, folder.file("out/one.png"));
  EXPECT_EQ(name_copies(folder.file("out"), {image}, inputs, ""),
            (std::vector<std::string>{folder.file("out/one-2.png")}));
}

}  // namespace
}  // namespace ravu::test
