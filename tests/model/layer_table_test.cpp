// The table of layer classes: keywords, type codes, labels.
#include "model/layer_table.h"

#include <gtest/gtest.h>

#include <map>
#include <set>
#include <string>

namespace ravu::test {
namespace {

struct Expected {
  std::uint32_t type;
  std::string label;
};

// The pairings are part of the file format: "neuron" is the fully connected layer, "normalize" is
// LRN while "norm" is the L2 normalisation, "max" is softmax.
const std::map<std::string_view, Expected> kClasses{
    {"conv", {2, "Conv"}},        {"gconv", {2, "GConv"}},
    {"concat", {1, "concat"}},    {"power", {11, "Power"}},
    {"normalize", {9, "LRN"}},    {"neuron", {8, "FullyConnect"}},
    {"pool", {10, "Pooling"}},    {"relu", {13, "ReLU"}},
    {"prelu", {12, "PReLU"}},     {"eltwise", {7, "Eltwise"}},
    {"bn", {3, "BatchNorm"}},     {"scale", {4, "Scale"}},
    {"flatten", {20, "Flatten"}}, {"reshape", {19, "Reshape"}},
    {"norm", {15, "normalize"}},  {"priorbox", {16, "PriorBox"}},
    {"permute", {18, "Permute"}}, {"detectionout", {17, "DetectionOutput"}},
    {"max", {14, "Softmax"}},
};

TEST(LayerTable, EveryRowPairsAKeywordWithItsTypeAndLabel) {
  EXPECT_FALSE(layer_table().empty());
  for (const LayerRow& row : layer_table()) {
    const auto expected = kClasses.find(row.keyword);
    ASSERT_NE(expected, kClasses.end()) << row.keyword;
    EXPECT_EQ(row.type, expected->second.type) << row.keyword;
    EXPECT_EQ(row.label, expected->second.label) << row.keyword;
    EXPECT_NE(row.read, nullptr) << row.keyword;
    EXPECT_NE(row.fits, nullptr) << row.keyword;
  }
}

TEST(LayerTable, EveryKeywordIsThereOnce) {
  std::set<std::string_view> keywords;
  for (const LayerRow& row : layer_table()) EXPECT_TRUE(keywords.insert(row.keyword).second);
}

TEST(LayerTable, TheCropHasNoRow) {
  EXPECT_EQ(find_row(layer_table(), "crop"), nullptr);
  for (const LayerRow& row : layer_table()) EXPECT_NE(row.type, 5U);
}

TEST(LayerTable, KeywordsAreComparedExactly) {
  ASSERT_NE(find_row(layer_table(), "relu"), nullptr);
  EXPECT_EQ(find_row(layer_table(), "relu")->label, std::string("ReLU"));
  for (const char* keyword : {"", "Relu", "RELU", "rel", "relu6", " relu"}) {
    EXPECT_EQ(find_row(layer_table(), keyword), nullptr) << keyword;
  }
}

TEST(LayerTable, TheFirstRowOfAKeywordWins) {
  const LayerRow rows[] = {{"a", 1, "first", nullptr, nullptr, nullptr},
                           {"a", 2, "second", nullptr, nullptr, nullptr}};
  EXPECT_EQ(find_row(rows, "a")->type, 1U);
  EXPECT_EQ(find_row({}, "a"), nullptr);
}

TEST(LayerTable, TypesAreFoundToo) {
  for (const LayerRow& row : layer_table()) {
    EXPECT_EQ(find_row(layer_table(), row.type)->type, row.type);
  }
  EXPECT_EQ(find_row(layer_table(), std::uint32_t{2})->keyword, "conv");
  for (const std::uint32_t type : {0U, 5U, 6U, 21U}) {
    EXPECT_EQ(find_row(layer_table(), type), nullptr) << type;
  }
}

}  // namespace
}  // namespace ravu::test
