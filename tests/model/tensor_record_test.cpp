// Tensor records, plain and quantised.
#include "model/tensor_record.h"

#include <gtest/gtest.h>

#include <string>

#include "support/blobs.h"
#include "support/captured.h"

namespace ravu::test {
namespace {

struct Result {
  BlobPtr blob;
  std::string broken_rule;
};

Result read(const Bytes& record, bool quantised = false) {
  const char* broken_rule = nullptr;
  BlobPtr blob = read_tensor(root_tag(record.data(), record.size()), quantised, &broken_rule);
  return {std::move(blob), broken_rule == nullptr ? "" : broken_rule};
}

Bytes dims_list(const std::vector<int>& dims) {
  std::vector<Bytes> entries;
  for (const int dim : dims) entries.push_back(integer(dim));
  return list(entries);
}

Bytes quantised_tensor(const std::vector<int>& dims, const Bytes& data,
                       const std::vector<float>& offsets, const std::vector<float>& steps) {
  return Dictionary()
      .add("float_bits", 32)
      .add("dims", dims_list(dims))
      .add("mean_f", floats(offsets))
      .add("step_f", floats(steps))
      .add("data", raw_bytes(data));
}

constexpr const char* kDimsRule =
    "the tensor needs \"dims\" that describe fewer than 2^31 elements";
constexpr const char* kDataRule =
    "the tensor's \"data\" holds fewer values than its \"dims\" ask for";
constexpr const char* kBlockRule =
    "the quantised tensor needs one \"mean_f\" and one \"step_f\" for each block";

TEST(TensorRecord, ReadsDimsAndValues) {
  const auto result = read(tensor({1, 2, 1, 3}, {1, 2, 3, 4, 5, 6}));
  ASSERT_TRUE(result.blob);
  EXPECT_EQ(result.blob->dims, (Dims{1, 2, 1, 3}));
  EXPECT_EQ(result.blob->count, 6U);
  EXPECT_EQ(result.blob->layout, kInterleaved);
  EXPECT_TRUE(result.blob->name.empty());
  EXPECT_EQ(values_of(*result.blob), (std::vector<float>{1, 2, 3, 4, 5, 6}));
}

TEST(TensorRecord, TheStoredCountAndLayoutAreNotReadBack) {
  const auto result = read(tensor({1, 1, 1, 3, 99, 1}, {1, 2, 3}));
  ASSERT_TRUE(result.blob);
  EXPECT_EQ(result.blob->count, 3U);
  EXPECT_EQ(result.blob->layout, kInterleaved);
}

TEST(TensorRecord, DimsThatAreNotGivenStayOne) {
  EXPECT_EQ(read(tensor({2, 3}, std::vector<float>(6))).blob->dims, (Dims{2, 3, 1, 1}));
  const auto scalar = read(tensor({}, {5}));
  ASSERT_TRUE(scalar.blob);
  EXPECT_EQ(scalar.blob->dims, (Dims{1, 1, 1, 1}));
  EXPECT_EQ(values_of(*scalar.blob), std::vector<float>{5});
}

TEST(TensorRecord, MoreValuesThanTheDimsAskForAreIgnored) {
  EXPECT_EQ(values_of(*read(tensor({2}, {1, 2, 3})).blob), (std::vector<float>{1, 2}));
}

TEST(TensorRecord, ADimOfZeroGivesABlobWithoutValues) {
  const auto result = read(tensor({0, 5}, {}));
  ASSERT_TRUE(result.blob);
  EXPECT_EQ(result.blob->count, 0U);
  EXPECT_EQ(result.blob->data, nullptr);
}

TEST(TensorRecord, FewerValuesThanTheDimsAskForAreRefused) {
  EXPECT_EQ(read(tensor({2, 2}, {1, 2, 3})).broken_rule, kDataRule);
  Bytes data(15, 0);  // one byte short of four floats
  EXPECT_EQ(read(Dictionary().add("dims", dims_list({4})).add("data", raw_bytes(data))).broken_rule,
            kDataRule);
}

TEST(TensorRecord, MissingDimsOrDataAreRefused) {
  EXPECT_EQ(read(Dictionary().add("data", floats({1}))).broken_rule, kDimsRule);
  EXPECT_EQ(read(Dictionary().add("dims", dims_list({1}))).broken_rule, kDataRule);
}

TEST(TensorRecord, NegativeAndHugeDimsAreRefused) {
  EXPECT_EQ(read(tensor({-1}, {1})).broken_rule, kDimsRule);
  EXPECT_EQ(read(tensor({1 << 16, 1 << 15}, {1})).broken_rule, kDimsRule);
  EXPECT_EQ(read(tensor({1 << 16, 1 << 16, 1 << 16, 1 << 16}, {1})).broken_rule, kDimsRule)
      << "the product is 0 modulo 2^64";
  EXPECT_EQ(read(tensor({(1 << 15), (1 << 15)}, {1})).broken_rule, kDataRule);
}

TEST(TensorRecord, ADimOfFewerThanFourBytesIsRefused) {
  const Bytes dims = list({integer(1), raw_bytes({1, 0, 0})});
  EXPECT_EQ(read(Dictionary().add("dims", dims).add("data", floats({1}))).broken_rule, kDimsRule);
}

TEST(TensorRecord, ADamagedDimsListKeepsTheDimsBeforeTheDamage) {
  Bytes dims = list({integer(2), integer(3)});
  dims[8 + 12 + 4] = 5;  // the second entry's length
  EXPECT_EQ(captured_stderr([&] {
              const auto result = read(Dictionary().add("dims", dims).add("data", floats({1, 2})));
              ASSERT_TRUE(result.blob);
              EXPECT_EQ(result.blob->dims, (Dims{2, 1, 1, 1}));
            }),
            kNotEnoughBytes);
}

TEST(TensorRecordQuantised, AByteTimesItsBlocksStepPlusItsBlocksOffset) {
  const auto result = read(quantised_tensor({4}, {0, 1, 0x7F, 0x80}, {10}, {0.5F}), true);
  ASSERT_TRUE(result.blob);
  EXPECT_EQ(values_of(*result.blob), (std::vector<float>{10, 10.5F, 73.5F, -54}));
}

TEST(TensorRecordQuantised, ACountOf129HasASecondBlockOfOneElement) {
  Bytes data(129, 1);
  const auto result = read(quantised_tensor({129}, data, {10, 20}, {2, 3}), true);
  ASSERT_TRUE(result.blob);
  EXPECT_EQ(result.blob->data[0], 12);
  EXPECT_EQ(result.blob->data[127], 12);
  EXPECT_EQ(result.blob->data[128], 23);
}

TEST(TensorRecordQuantised, AStepOfZeroGivesTheOffsetExactly) {
  const auto result = read(quantised_tensor({2}, {5, 0x80}, {0.1F}, {0}), true);
  EXPECT_EQ(values_of(*result.blob), (std::vector<float>{0.1F, 0.1F}));
}

TEST(TensorRecordQuantised, TooFewBytesOffsetsOrStepsAreRefused) {
  const Bytes data(129, 1);
  EXPECT_EQ(read(quantised_tensor({130}, data, {1, 2}, {1, 2}), true).broken_rule, kDataRule);
  EXPECT_EQ(read(quantised_tensor({129}, data, {1}, {1, 2}), true).broken_rule, kBlockRule);
  EXPECT_EQ(read(quantised_tensor({129}, data, {1, 2}, {1}), true).broken_rule, kBlockRule);
  EXPECT_TRUE(read(quantised_tensor({128}, data, {1}, {1}), true).blob);
  const auto without = [&](const char* key) {
    Dictionary record;
    record.add("dims", dims_list({1})).add("data", raw_bytes({1}));
    return record.add(key, floats({1}));
  };
  EXPECT_EQ(read(without("mean_f"), true).broken_rule, kBlockRule);
  EXPECT_EQ(read(without("step_f"), true).broken_rule, kBlockRule);
}

TEST(TensorRecordQuantised, WithoutElementsNeedsNoBlocks) {
  const auto result = read(quantised_tensor({0}, {}, {}, {}), true);
  ASSERT_TRUE(result.blob);
  EXPECT_EQ(result.blob->data, nullptr);
}

TEST(TensorRecordQuantised, TheFlagAndNotTheRecordDecides) {
  const Bytes record = quantised_tensor({1}, {0, 0, 0x80, 0x3F}, {7}, {1});
  EXPECT_EQ(values_of(*read(record, false).blob), std::vector<float>{1.0F});
  EXPECT_EQ(values_of(*read(record, true).blob), std::vector<float>{7.0F});
}

}  // namespace
}  // namespace ravu::test
