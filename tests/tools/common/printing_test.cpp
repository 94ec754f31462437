// Text that people and scripts read.
#include "common/printing.h"

#include <gtest/gtest.h>

namespace ravu::test {
namespace {

using namespace tools;

TEST(Printable, ControlCharactersCannotFakeFieldsOrLines) {
  EXPECT_EQ(printable("a\tb\nc\x7F\x1B[0m"), "a?b?c??[0m");
}

TEST(Printable, Utf8StaysAsItIs) {
  EXPECT_EQ(printable("caf\xC3\xA9"), "caf\xC3\xA9");
}

TEST(Fixed, HasTheDigitsAskedFor) {
  EXPECT_EQ(fixed(1.0 / 3, 3), "0.333");
  EXPECT_EQ(fixed(2, 0), "2");
}

TEST(Fixed, HoldsTheGreatestNumber) {
  EXPECT_EQ(fixed(-1.7976931348623157e308, 20).size(), 1U + 309 + 1 + 20);
}

TEST(Rounded, KeepsFourDigitsOfAnySize) {
  EXPECT_EQ(rounded(0.0123456), "0.01235");
  EXPECT_EQ(rounded(1.7014117e38), "1.701e+38");
  EXPECT_EQ(rounded(0), "0");
}

TEST(TableText, PadsColumnsAndLeavesNoBlanksAtTheEnd) {
  Table table({{"name"}, {"ms", Table::Align::kRight}, {"note"}});
  table.add_row({"a", "12.5", "x"});
  table.add_row({"longer", "3", ""});
  EXPECT_EQ(table.text(),
            "name      ms  note\n"
            "a       12.5  x\n"
            "longer     3\n");
}

TEST(DimsText, IsOneWord) {
  EXPECT_EQ(dims_text({1, 224, 224, 3}), "1x224x224x3");
}

}  // namespace
}  // namespace ravu::test
