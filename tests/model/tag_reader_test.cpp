// The tagged container: lookup, walking, values, files. Images are copied to buffers of exactly
// their size, so that the sanitizers see any step too far.
#include "model/tag_reader.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <filesystem>
#include <memory>
#include <string>

#include "support/ModelBuilder.h"
#include "support/captured.h"

namespace ravu::test {
namespace {

// An element in a buffer of its own.
struct Image {
  explicit Image(const Bytes& bytes) : copy(std::make_unique<std::uint8_t[]>(bytes.size())) {
    std::copy(bytes.begin(), bytes.end(), copy.get());
    root = root_tag(copy.get(), bytes.size());
  }
  std::unique_ptr<std::uint8_t[]> copy;
  Tag root;
};

int found_int(const Bytes& dictionary, std::string_view key) {
  const Image image(dictionary);
  return tag_int(get_tag_from_memory(image.root, key)).value_or(-1);
}

// The integers of a list; a child that is too short for one is -1.
std::vector<int> walked(const Bytes& list) {
  const Image image(list);
  std::vector<int> values;
  for (TagWalk walk(image.root); walk.next();) values.push_back(tag_int(walk.child).value_or(-1));
  return values;
}

Bytes with_byte(Bytes bytes, std::size_t at, std::uint8_t value) {
  bytes.at(at) = value;
  return bytes;
}

Bytes joined(Bytes first, const Bytes& second) {
  first.insert(first.end(), second.begin(), second.end());
  return first;
}

TEST(TagLookup, FindsEachKey) {
  const Bytes dictionary = Dictionary().add("a", 1).add("abc", 2).add("abcd", 3);
  EXPECT_EQ(found_int(dictionary, "a"), 1);
  EXPECT_EQ(found_int(dictionary, "abc"), 2);
  EXPECT_EQ(found_int(dictionary, "abcd"), 3);
  EXPECT_EQ(found_int(dictionary, "b"), -1);
}

TEST(TagLookup, OfAKeyStoredTwiceReturnsTheSecondValue) {
  EXPECT_EQ(found_int(Dictionary().add("a", 1).add("b", 5).add("a", 2), "a"), 2);
}

TEST(TagLookup, APrefixDoesNotMatchInEitherDirection) {
  EXPECT_EQ(found_int(Dictionary().add("normalize", 1), "norm"), -1);
  EXPECT_EQ(found_int(Dictionary().add("norm", 1), "normalize"), -1);
  EXPECT_EQ(found_int(Dictionary().add("norm", 1), ""), -1);
}

TEST(TagLookup, AnUnpaddedKeyEndsWithItsElement) {
  const Bytes pair = joined(raw_bytes({'n', 'o', 'r', 'm'}), integer(7));
  EXPECT_EQ(found_int(element(4, pair), "norm"), 7);
  EXPECT_EQ(found_int(element(4, pair), "normalize"), -1);
  EXPECT_EQ(found_int(element(4, pair), "nor"), -1);
}

TEST(TagLookup, AnEmptyDictionaryHoldsNoKey) {
  EXPECT_EQ(captured_stderr([] {
              EXPECT_EQ(found_int(element(4, {}), "a"), -1);
              EXPECT_EQ(found_int(element(4, {}), ""), -1);
            }),
            "");
}

TEST(TagLookup, TypesAreNotChecked) {
  EXPECT_EQ(
      found_int(element(9, joined(element(7, {'a', 0, 0, 0}), element(8, {5, 0, 0, 0}))), "a"), 5);
}

TEST(TagLookup, AByteArrayOfAnyLengthMayComeFirst) {
  for (std::size_t n = 0; n < 9; ++n) {
    EXPECT_EQ(found_int(Dictionary().add("x", raw_bytes(Bytes(n, 0xFF))).add("a", 5), "a"), 5);
  }
}

TEST(TagLookup, AValueThatRunsPastTheDictionaryPrintsAMessageAndYieldsNone) {
  const Bytes good = Dictionary().add("a", 1).add("b", 2);
  const std::size_t last_length = good.size() - 8;
  EXPECT_EQ(
      captured_stderr([&] { EXPECT_EQ(found_int(with_byte(good, last_length, 5), "b"), -1); }),
      kNotEnoughBytes);
  EXPECT_EQ(
      captured_stderr([&] { EXPECT_EQ(found_int(with_byte(good, last_length, 5), "a"), -1); }),
      kNotEnoughBytes)
      << "the damage is behind the pair that matches, and still no value is trusted";
}

TEST(TagLookup, ALengthNearFourGigabytesDoesNotWrap) {
  Bytes damaged = Dictionary().add("a", 1);
  for (std::size_t i = 4; i < 8; ++i) damaged[8 + i] = 0xFF;  // the key's length
  EXPECT_EQ(captured_stderr([&] { EXPECT_EQ(found_int(damaged, "a"), -1); }), kNotEnoughBytes);
}

TEST(TagLookup, AKeyWithoutAValueYieldsNone) {
  EXPECT_EQ(captured_stderr([] { EXPECT_EQ(found_int(element(4, text("a")), "a"), -1); }),
            kNotEnoughBytes);
}

TEST(TagLookup, ARestThatIsShorterThanAHeaderYieldsNone) {
  for (std::size_t n = 1; n < 8; ++n) {
    const Bytes rest = joined(joined(text("a"), integer(1)), Bytes(n, 0));
    EXPECT_EQ(captured_stderr([&] { EXPECT_EQ(found_int(element(4, rest), "a"), -1); }),
              kNotEnoughBytes);
  }
}

TEST(TagWalk, VisitsEveryChildInOrder) {
  EXPECT_EQ(walked(list({integer(3), integer(1), integer(2)})), (std::vector<int>{3, 1, 2}));
}

TEST(TagWalk, AnEmptyListHasNoChildren) {
  EXPECT_EQ(captured_stderr([] { EXPECT_TRUE(walked(list({})).empty()); }), "");
  TagWalk nothing{Tag{}};
  EXPECT_FALSE(nothing.next());
  EXPECT_FALSE(nothing.child);
}

TEST(TagWalk, EndsAfterAMessageAtAChildThatRunsPastItsParent) {
  const Bytes good = list({integer(3), integer(1), integer(2)});
  const Bytes damaged = with_byte(good, 8 + 12 + 4, 100);  // the second child's length
  EXPECT_EQ(captured_stderr([&] { EXPECT_EQ(walked(damaged), std::vector<int>{3}); }),
            kNotEnoughBytes);
}

TEST(TagWalk, StaysAtItsEnd) {
  const Image image(list({integer(3)}));
  TagWalk walk(image.root);
  EXPECT_TRUE(walk.next());
  EXPECT_FALSE(walk.next());
  EXPECT_FALSE(walk.next());
}

TEST(TagWalk, ChildrenOfLengthZeroAreVisited) {
  EXPECT_EQ(walked(list({element(0, {}), integer(2)})), (std::vector<int>{-1, 2}));
}

TEST(TagValues, AreLittleEndianAndUnaligned) {
  const Bytes bytes = joined({0}, {0x78, 0x56, 0x34, 0x12, 0x00, 0x00, 0x80, 0xBF});
  const Tag tag{bytes.data() + 1, 0, 8};
  EXPECT_EQ(tag_int(tag), 0x12345678);
  EXPECT_EQ(tag_float(tag, 1), -1.0F);
}

TEST(TagValues, EndWithThePayload) {
  const Bytes bytes{1, 0, 0, 0, 2, 0, 0};
  const Tag tag{bytes.data(), 0, 7};
  EXPECT_EQ(tag_int(tag, 0), 1);
  EXPECT_FALSE(tag_int(tag, 1));
  EXPECT_FALSE(tag_float(tag, 1));
  EXPECT_FALSE(tag_int(tag, SIZE_MAX));
  EXPECT_FALSE(tag_int(Tag{}));
  EXPECT_FALSE(tag_float(Tag{}));
}

TEST(TagText, EndsAtTheFirstZeroByteOrWithTheElement) {
  const Bytes bytes{'a', 'b', 0, 'c', 0};
  EXPECT_EQ(tag_text({bytes.data(), 0, 5}), "ab");
  EXPECT_EQ(tag_text({bytes.data(), 0, 2}), "ab");
  EXPECT_EQ(tag_text({bytes.data(), 0, 1}), "a");
  EXPECT_EQ(tag_text({bytes.data(), 0, 0}), "");
  EXPECT_EQ(tag_text(Tag{}), "");
}

TEST(TagText, TakesTheSizesThatTheFormatGivesStrings) {
  EXPECT_EQ(text("conv").size(), 8U + 8);
  EXPECT_EQ(text("relu").size(), 8U + 8);
  EXPECT_EQ(text("bn").size(), 8U + 4);
  EXPECT_EQ(text("max").size(), 8U + 4);
  for (const char* characters : {"", "a", "max", "conv", "eltwise", "detectionout"}) {
    const Image image(text(characters));
    EXPECT_EQ(tag_text(image.root), characters);
  }
}

TEST(RootTag, NeedsItsHeaderAndItsPayload) {
  const Bytes good = Dictionary().add("a", 1);
  for (std::size_t n = 0; n < good.size(); ++n) {
    const Bytes prefix(good.begin(), good.begin() + static_cast<std::ptrdiff_t>(n));
    EXPECT_FALSE(Image(prefix).root) << n;
  }
  EXPECT_TRUE(Image(good).root);
  EXPECT_EQ(Image(joined(good, {1, 2, 3})).root.length, good.size() - 8) << "more is ignored";
}

TEST(LoadFile, ReadsTheRootAndNothingBehindIt) {
  const Bytes good = Dictionary().add("a", 1);
  const TemporaryFile file(joined(good, {1, 2, 3}));
  const FileImage image = load_file(file.path());
  ASSERT_TRUE(image);
  EXPECT_EQ(Bytes(image.get(), image.get() + good.size()), good);
  EXPECT_EQ(tag_int(get_tag_from_memory(root_tag(image.get()), "a")), 1);
}

TEST(LoadFile, EveryShorterFileIsNone) {
  const Bytes good = Dictionary().add("a", 1);
  for (std::size_t n = 0; n < good.size(); ++n) {
    const TemporaryFile file(Bytes(good.begin(), good.begin() + static_cast<std::ptrdiff_t>(n)));
    EXPECT_FALSE(load_file(file.path())) << n;
  }
}

TEST(LoadFile, AHeaderThatPromisesFourGigabytesIsNone) {
  const TemporaryFile file({4, 0, 0, 0, 0xFF, 0xFF, 0xFF, 0xFF, 1, 2, 3});
  EXPECT_FALSE(load_file(file.path()));
}

TEST(LoadFile, AnEmptyRootIsARoot) {
  const TemporaryFile file({4, 0, 0, 0, 0, 0, 0, 0});
  const FileImage image = load_file(file.path());
  ASSERT_TRUE(image);
  EXPECT_EQ(root_tag(image.get()).length, 0U);
}

TEST(LoadFile, ReadsAFileOfSeveralPieces) {
  const std::size_t size = (std::size_t{1} << 26) + 12345;
  Bytes payload(size, 7);
  payload.back() = 9;
  const TemporaryFile file(raw_bytes(payload));
  const FileImage image = load_file(file.path());
  ASSERT_TRUE(image);
  EXPECT_EQ(std::memcmp(image.get() + 8, payload.data(), size), 0);
}

TEST(LoadFile, WithoutAPathAFileOrWithAFolderIsNone) {
  EXPECT_FALSE(load_file(nullptr));
  EXPECT_FALSE(load_file("/no such folder/no such file"));
  EXPECT_FALSE(load_file(std::filesystem::temp_directory_path().string().c_str()));
}

}  // namespace
}  // namespace ravu::test
