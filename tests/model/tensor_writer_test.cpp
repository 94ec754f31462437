// Writing tensor records: key order, six dims, and the byte codec with all its consequences.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdlib>

#include "model/tag_writer.h"
#include "model/tensor_record.h"
#include "support/blobs.h"

namespace ravu::test {
namespace {

struct Written {
  Bytes bytes;
  Tag tag() const { return root_tag(bytes.data(), bytes.size()); }
  Tag at(const char* key) const { return get_tag_from_memory(tag(), key); }
};

Written write(const Blob& blob, bool quantise) {
  std::uint8_t* element = write_tensor(&blob, quantise);
  Written written{{element, element + element_bytes(element)}};
  std::free(element);
  return written;
}

std::vector<float> round_trip(const std::vector<float>& values) {
  const auto n = static_cast<std::uint32_t>(values.size());
  const Written written = write(*make_blob({1, 1, 1, n}, values), /*quantise=*/true);
  const char* broken_rule = nullptr;
  const BlobPtr read = read_tensor(written.tag(), /*quantised=*/true, &broken_rule);
  return read ? values_of(*read) : std::vector<float>{};
}

TEST(TensorWriter, PlainRecordsHoldSixDimsAndTheFloats) {
  const auto blob = make_blob({2, 1, 3, 1}, {1, 2, 3, 4, 5, 6});
  blob->layout = kPlanar;
  const Bytes expected =
      Dictionary()
          .add("float_bits", 32)
          .add("dims",
               list({integer(2), integer(1), integer(3), integer(1), integer(6), integer(1)}))
          .add("data", floats({1, 2, 3, 4, 5, 6}));
  EXPECT_EQ(write(*blob, /*quantise=*/false).bytes, expected);
}

TEST(TensorWriter, QuantisedRecordsSayThirtyTwoBitsAndHoldUnpaddedBytes) {
  const Written written = write(*make_blob({1, 1, 1, 3}, {-1, 0, 1}), /*quantise=*/true);
  EXPECT_EQ(tag_int(written.at("float_bits")), 32);
  EXPECT_EQ(written.at("data").length, 3U);
  EXPECT_EQ(written.at("mean_f").length, 4U);
  EXPECT_EQ(written.at("step_f").length, 4U);
}

TEST(TensorWriter, TheStepDividesByTheNumberOfValues) {
  const Written written = write(*make_blob({1, 1, 1, 4}, {-3, 1, 2, 3}), /*quantise=*/true);
  EXPECT_EQ(tag_float(written.at("mean_f")), 0.0F);
  EXPECT_EQ(tag_float(written.at("step_f")), 1.5F);
  const Tag data = written.at("data");
  const std::vector<int> levels{-2, 0, 1, 2};  // towards zero: 1 / 1.5 is 0, 2 / 1.5 is 1
  for (std::size_t i = 0; i < levels.size(); ++i) {
    EXPECT_EQ(static_cast<std::int8_t>(data.payload[i]), levels[i]) << i;
  }
}

TEST(TensorWriter, ABlockSpreadEvenlyOverItsRangeStaysWithin64Levels) {
  std::vector<float> values(128);
  for (std::size_t i = 0; i < 128; ++i) values[i] = static_cast<float>(127 - i) - 63.5F;
  const Written written = write(*make_blob({1, 1, 1, 128}, values), /*quantise=*/true);
  for (std::size_t i = 0; i < 128; ++i) {
    EXPECT_LE(std::abs(static_cast<std::int8_t>(written.at("data").payload[i])), 64);
  }
}

TEST(TensorWriter, EqualValuesDecodeToThemselves) {
  const auto read = round_trip(std::vector<float>(20, 0.375F));
  EXPECT_EQ(read, std::vector<float>(20, 0.375F));
}

TEST(TensorWriter, OnePositiveValueAloneInABlockIsDestroyed) {
  const auto read = round_trip({2.0F});
  ASSERT_EQ(read.size(), 1U);
  EXPECT_GT(read[0], 1.6e38F);
}

TEST(TensorWriter, AValueThatRaisesTheGreatestIsNotConsideredForTheLeast) {
  // Ascending positive values: each one raises the greatest, so the least is never found.
  const Written written = write(*make_blob({1, 1, 1, 3}, {1, 2, 3}), /*quantise=*/true);
  EXPECT_GT(*tag_float(written.at("mean_f")), 1.6e38F);
}

TEST(TensorWriter, OneHundredAndTwentyNineValuesMakeTwoBlocks) {
  auto values = random_values(129, 1);
  values[128] = -0.5F;
  const Written written = write(*make_blob({1, 1, 1, 129}, values), /*quantise=*/true);
  EXPECT_EQ(written.at("mean_f").length, 8U);
  EXPECT_EQ(written.at("step_f").length, 8U);
  EXPECT_EQ(round_trip(values).size(), 129U);
}

TEST(TensorWriter, RandomValuesComeBackWithinOneStep) {
  const auto values = random_values(1000, 2);
  const auto read = round_trip(values);
  ASSERT_EQ(read.size(), values.size());
  for (std::size_t i = 0; i < values.size(); ++i) {
    EXPECT_NEAR(read[i], values[i], 2.0 / (i < 896 ? 128 : 104) + 1e-6);
  }
}

TEST(TensorWriter, ReleasedTensorsCannotBeWritten) {
  EXPECT_EQ(write_tensor(nullptr, false), nullptr);
  EXPECT_EQ(write_tensor(make_blob({1, 1, 1, 3}).get(), false), nullptr);
}

}  // namespace
}  // namespace ravu::test
