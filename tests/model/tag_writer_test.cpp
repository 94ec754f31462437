// The writer's elements, byte by byte against the tests' own builder.
#include "model/tag_writer.h"

#include <gtest/gtest.h>

#include <cstdlib>

#include "support/ModelBuilder.h"

namespace ravu::test {
namespace {

// The element's bytes; frees it.
Bytes taken(std::uint8_t* element) {
  if (element == nullptr) return {};
  Bytes bytes(element, element + element_bytes(element));
  std::free(element);
  return bytes;
}

TEST(TagWriter, EmptyContainersAreBareHeaders) {
  EXPECT_EQ(taken(make_dictionary()), (Bytes{4, 0, 0, 0, 0, 0, 0, 0}));
  EXPECT_EQ(taken(make_list()), (Bytes{5, 0, 0, 0, 0, 0, 0, 0}));
}

TEST(TagWriter, AStringOfFourCharactersTakesEightBytes) {
  EXPECT_EQ(taken(make_text("conv")),
            (Bytes{0, 0, 0, 0, 8, 0, 0, 0, 'c', 'o', 'n', 'v', 0, 0, 0, 0}));
}

TEST(TagWriter, AStringOfThreeCharactersTakesFourBytes) {
  EXPECT_EQ(taken(make_text("max")), (Bytes{0, 0, 0, 0, 4, 0, 0, 0, 'm', 'a', 'x', 0}));
}

TEST(TagWriter, ScalarsAndArrays) {
  EXPECT_EQ(taken(make_int(-2)), (Bytes{1, 0, 0, 0, 4, 0, 0, 0, 254, 255, 255, 255}));
  EXPECT_EQ(taken(make_float(1.0F)), (Bytes{2, 0, 0, 0, 4, 0, 0, 0, 0, 0, 128, 63}));
  EXPECT_EQ(taken(make_floats(std::vector<float>{1, 2})), floats({1, 2}));
  EXPECT_EQ(taken(make_floats({})), floats({}));
  EXPECT_EQ(taken(make_bytes(Bytes{1, 2, 3})), (Bytes{0, 0, 0, 0, 3, 0, 0, 0, 1, 2, 3}));
}

TEST(TagWriter, ACopyHasTheTypeAndThePayloadOfTheOriginal) {
  for (const Bytes& original : {text("card"), small_ints({1, 2, 3, 4}), element(9, {1, 2, 3})}) {
    EXPECT_EQ(taken(make_copy(root_tag(original.data(), original.size()))), original);
  }
}

TEST(TagWriter, SmallArraysAreDictionariesAroundOneChildWithoutAKey) {
  EXPECT_EQ(taken(make_small_floats(std::vector<float>{1, 2, 3})), small_floats({1, 2, 3}));
  EXPECT_EQ(taken(make_small_ints(std::vector<std::int32_t>{0, 3, 1, 2})),
            small_ints({0, 3, 1, 2}));
}

TEST(TagWriter, ContainersGrowByCompleteElements) {
  std::uint8_t* inner = append(append(make_list(), make_int(7)), make_text("x"));
  EXPECT_EQ(taken(add(add(make_dictionary(), "list", inner), "n", make_int(1))),
            Dictionary().add("list", list({integer(7), text("x")})).add("n", 1).bytes());
}

TEST(TagWriter, AMissingPartMakesTheWholeMissing) {
  EXPECT_EQ(append(make_list(), nullptr), nullptr);
  EXPECT_EQ(append(nullptr, make_int(1)), nullptr);
  EXPECT_EQ(add(make_dictionary(), "key", nullptr), nullptr);
  EXPECT_EQ(add(nullptr, "key", make_int(1)), nullptr);
}

}  // namespace
}  // namespace ravu::test
