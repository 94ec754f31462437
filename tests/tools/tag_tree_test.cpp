// The tag tree of sound, odd and hostile files.
#include <gtest/gtest.h>

#include "inspect.h"
#include "support/ModelBuilder.h"

namespace ravu::test {
namespace {

using namespace tools;

TagNode tree_of(const Bytes& bytes) {
  return read_tag_tree(root_tag(bytes.data(), bytes.size()));
}

TEST(TagTree, ShowsKeysTypesLengthsAndValues) {
  const TagNode root = tree_of(Dictionary()
                                   .add("name", "conv1")
                                   .add("size", -3)
                                   .add("slope", 0.5F)
                                   .add("values", floats({1, 2.5F})));
  EXPECT_EQ(root.type, "dictionary");
  ASSERT_EQ(root.children.size(), 4U);
  EXPECT_EQ(root.children[0].key, "name");
  EXPECT_EQ(root.children[0].type, "text");
  EXPECT_EQ(root.children[0].length, 8U);
  EXPECT_EQ(root.children[0].value, "\"conv1\"");
  EXPECT_EQ(root.children[1].type, "int");
  EXPECT_EQ(root.children[1].value, "-3");
  EXPECT_EQ(root.children[2].type, "float");
  EXPECT_EQ(root.children[2].value, "0.5");
  EXPECT_EQ(root.children[3].type, "floats");
  EXPECT_EQ(root.children[3].value, "1 2.5");
}

TEST(TagTree, ListsHaveChildrenWithoutKeys) {
  const TagNode root = tree_of(texts({"a", "b"}));
  EXPECT_EQ(root.type, "list");
  ASSERT_EQ(root.children.size(), 2U);
  EXPECT_EQ(root.children[1].key, "");
  EXPECT_EQ(root.children[1].value, "\"b\"");
}

TEST(TagTree, ASmallArrayIsADictionaryAroundOneChildWithoutKey) {
  const TagNode root = tree_of(small_ints({4, 5, 6, 7}));
  EXPECT_EQ(root.type, "dictionary");
  ASSERT_EQ(root.children.size(), 1U);
  EXPECT_EQ(root.children[0].value, "4 5 6 7");
  EXPECT_EQ(root.note, "");
}

TEST(TagTree, LongValuesAreCut) {
  EXPECT_EQ(tree_of(floats(std::vector<float>(100, 1))).value, "1 1 1 1 1 1 ...");
  EXPECT_EQ(tree_of(text(std::string(70, 'x'))).value, '"' + std::string(60, 'x') + "\"...");
}

TEST(TagTree, RawBytesAreShownAsBytes) {
  const TagNode node = tree_of(raw_bytes({1, 0xAB, 3}));
  EXPECT_EQ(node.type, "bytes");
  EXPECT_EQ(node.value, "01 ab 03");
}

TEST(TagTree, AnUnknownTypeIsShownByItsNumber) {
  EXPECT_EQ(tree_of(element(9, {1, 2})).type, "type 9");
}

TEST(TagTree, AnEmptyContainerIsSound) {
  EXPECT_EQ(tree_of(list({})).note, "");
  EXPECT_EQ(tree_of(Dictionary()).note, "");
}

TEST(TagTree, AChildThatDoesNotFitIsReported) {
  Bytes payload = integer(1);
  const Bytes broken{1, 0, 0, 0, 200, 0, 0, 0};
  payload.insert(payload.end(), broken.begin(), broken.end());
  const TagNode root = tree_of(element(5, payload));
  EXPECT_EQ(root.children.size(), 1U);
  EXPECT_EQ(root.note, "damaged: the last 8 bytes hold no whole element");
}

TEST(TagTree, AKeyWithoutValueIsReported) {
  EXPECT_EQ(tree_of(element(4, text("size"))).note, "damaged: the key \"size\" has no value");
}

TEST(TagTree, DeepNestingIsNotFollowed) {
  Bytes bytes = list({});
  for (int i = 0; i < 100; ++i) bytes = list({bytes});
  TagNode root = tree_of(bytes);
  const TagNode* node = &root;
  int depth = 0;
  for (; !node->children.empty(); node = &node->children[0]) ++depth;
  EXPECT_EQ(depth, 32);
  EXPECT_EQ(node->note, "not opened: too deep");
}

TEST(TagTree, AMillionElementsAreEnough) {
  const TagNode root = tree_of(element(5, Bytes(8 * 1'000'100, 0)));
  EXPECT_EQ(root.children.size(), 1'000'000U);
  EXPECT_EQ(root.note, "the rest is not shown: too many elements");
}

TEST(TagTree, EveryCutOfARecordIsRead) {
  const Bytes whole = Dictionary().add("a", texts({"x", "y"})).add("b", small_floats({1, 2}));
  for (std::size_t length = 0; length + 8 <= whole.size(); ++length) {
    const Bytes payload(whole.begin() + 8, whole.begin() + 8 + static_cast<std::ptrdiff_t>(length));
    const Bytes cut = element(4, payload);
    EXPECT_EQ(tree_of(cut).type, "dictionary");
  }
}

}  // namespace
}  // namespace ravu::test
