// Blobs: shapes, the storage rule, element order, borrowing.
#include "graph/Blob.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <numeric>
#include <vector>

#include "support/blobs.h"

#if __has_include(<sanitizer/asan_interface.h>)
#include <sanitizer/asan_interface.h>
#endif
#if defined(__SANITIZE_ADDRESS__)
#define RAVU_TEST_ASAN 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
#define RAVU_TEST_ASAN 1
#endif
#endif

namespace ravu::test {
namespace {

std::vector<float> count_up(std::size_t n) {
  std::vector<float> values(n);
  std::iota(values.begin(), values.end(), 0.0F);
  return values;
}

bool is_storage_aligned(const float* data) {
  return reinterpret_cast<std::uintptr_t>(data) % kStorageAlignment == 0;
}

TEST(BlobRecord, AFreshBlobIsOneElementWithoutDataAndName) {
  const Blob blob;
  EXPECT_EQ(blob.dims, (Dims{1, 1, 1, 1}));
  EXPECT_EQ(blob.count, 1U);
  EXPECT_EQ(blob.layout, kInterleaved);
  EXPECT_EQ(blob.consumers, 0U);
  EXPECT_EQ(blob.producers, 0U);
  EXPECT_EQ(blob.data, nullptr);
  EXPECT_TRUE(blob.name.empty());
}

TEST(BlobShape, TheCountIsTheProductOfTheDims) {
  const auto shape = make_shape(2, 3, 4, 5, kPlanar);
  ASSERT_TRUE(shape);
  EXPECT_EQ(shape->dims, (Dims{2, 3, 4, 5}));
  EXPECT_EQ(shape->count, 120U);
  EXPECT_EQ(shape->layout, kPlanar);
}

TEST(BlobShape, TheGreatestCountIsOneBelowTwoToThe31) {
  EXPECT_EQ(make_shape(1, 1, 1, kMaxCount, 0)->count, kMaxCount);
  EXPECT_FALSE(make_shape(1, 1, 1, std::int64_t{kMaxCount} + 1, 0));
  EXPECT_FALSE(make_shape(2, 1 << 15, 1 << 15, 1, 0));
  EXPECT_FALSE(make_shape(1 << 16, 1 << 16, 1 << 16, 1 << 16, 0));
}

TEST(BlobShape, ANegativeDimIsNone) {
  for (int i = 0; i < 4; ++i) {
    std::array<std::int64_t, 4> dims{1, 1, 1, 1};
    dims[i] = -1;
    EXPECT_FALSE(make_shape(dims[0], dims[1], dims[2], dims[3], 0)) << i;
    dims[i] = INT64_MIN;
    EXPECT_FALSE(make_shape(dims[0], dims[1], dims[2], dims[3], 0)) << i;
  }
}

TEST(BlobShape, ADimOfZeroMakesTheCountZeroButHidesNoLoopThatIsTooLong) {
  EXPECT_EQ(make_shape(0, kMaxCount, kMaxCount, kMaxCount, 0)->count, 0U);
  EXPECT_EQ(make_shape(1, 0, kMaxCount, kMaxCount, 0)->count, 0U);
  EXPECT_FALSE(make_shape(1, kMaxCount, kMaxCount, 0, 0));
}

TEST(BlobShape, DimsAndLayoutAreComparedAndTheCountIsNot) {
  Shape a = *make_shape(1, 2, 3, 4, kInterleaved);
  Shape b = a;
  b.count = 7;
  EXPECT_TRUE(same_dims_and_layout(a, b));
  b.layout = kPlanar;
  EXPECT_FALSE(same_dims_and_layout(a, b));
  for (int i = 0; i < 4; ++i) {
    b = a;
    ++b.dims[i];
    EXPECT_FALSE(same_dims_and_layout(a, b)) << i;
  }
}

TEST(BlobShape, DimsWithinCountIsFalseWhenTheDimsDescribeMore) {
  Shape shape = *make_shape(1, 2, 3, 4, 0);
  EXPECT_TRUE(dims_within_count(shape));
  shape.count = 23;
  EXPECT_FALSE(dims_within_count(shape));
  shape.count = 25;
  EXPECT_TRUE(dims_within_count(shape));
  shape.dims = {0xFFFFFFFF, 0xFFFFFFFF, 0xFFFFFFFF, 0xFFFFFFFF};
  shape.count = 0xFFFFFFFF;
  EXPECT_FALSE(dims_within_count(shape));
}

TEST(BlobStorage, ThreeElementsReserve64Bytes) {
  EXPECT_EQ(reserved_bytes(3), 64U);
}

TEST(BlobStorage, FourTimesTheNeededBytesAreReservedInWholeBlocksOf64) {
  EXPECT_EQ(reserved_bytes(0), 0U);
  EXPECT_EQ(reserved_bytes(1), 64U);
  EXPECT_EQ(reserved_bytes(4), 64U);
  EXPECT_EQ(reserved_bytes(5), 128U);
  EXPECT_EQ(reserved_bytes(8), 128U);
  EXPECT_EQ(reserved_bytes(1000), 16000U);
}

TEST(BlobStorage, LargeSizesNeitherWrapNorLoseBits) {
  EXPECT_EQ(reserved_bytes((1U << 24) + 1), (std::size_t{1} << 28) + 64);
  EXPECT_EQ(reserved_bytes(kMaxCount), (std::size_t{1} << 35));
}

TEST(BlobStorage, AllocateGivesAlignedZeroes) {
  for (const std::uint32_t count : {1U, 3U, 16U, 17U, 5000U}) {
    Blob blob;
    blob.count = count;
    EXPECT_TRUE(allocate(blob));
    EXPECT_TRUE(is_storage_aligned(blob.data));
    EXPECT_EQ(values_of(blob), std::vector<float>(count, 0.0F));
  }
}

TEST(BlobStorage, AllocateChangesNothingWhenThereIsData) {
  const auto blob = make_blob({1, 1, 1, 2}, {3, 4});
  const float* before = blob->data;
  EXPECT_FALSE(allocate(*blob));
  EXPECT_EQ(blob->data, before);
  EXPECT_EQ(values_of(*blob), (std::vector<float>{3, 4}));
}

TEST(BlobStorage, ACountOfZeroGetsNone) {
  Blob blob;
  blob.count = 0;
  EXPECT_TRUE(allocate(blob));
  EXPECT_EQ(blob.data, nullptr);
  assign(blob, "");
  EXPECT_EQ(blob.data, nullptr);
}

TEST(BlobStorage, AssignCopiesFromAnyAddressAndZeroesWithoutASource) {
  const std::vector<float> values{1, 2, 3};
  std::vector<std::uint8_t> bytes(1 + sizeof(float) * 3);
  std::memcpy(bytes.data() + 1, values.data(), sizeof(float) * 3);
  Blob blob;
  blob.count = 3;
  assign(blob, bytes.data() + 1);
  EXPECT_TRUE(is_storage_aligned(blob.data));
  EXPECT_EQ(values_of(blob), values);
  Blob zeroes;
  zeroes.count = 3;
  assign(zeroes, nullptr);
  EXPECT_EQ(values_of(zeroes), std::vector<float>(3, 0.0F));
}

TEST(BlobStorage, FreeingTwiceIsHarmless) {
  const auto blob = make_blob({1, 1, 1, 2}, {3, 4});
  free_storage(*blob);
  EXPECT_EQ(blob->data, nullptr);
  free_storage(*blob);
  EXPECT_EQ(blob->data, nullptr);
  EXPECT_TRUE(allocate(*blob));
}

#ifdef RAVU_TEST_ASAN
TEST(BlobStorage, WhatIsReservedBeyondTheElementsIsPoisoned) {
  Blob blob;
  blob.count = 3;
  allocate(blob);
  const char* bytes = reinterpret_cast<const char*>(blob.data);
  EXPECT_FALSE(__asan_address_is_poisoned(bytes + 11));
  for (const int i : {12, 16, 63}) EXPECT_TRUE(__asan_address_is_poisoned(bytes + i)) << i;
  reshape(blob, *make_shape(1, 1, 1, 5, 0));
  bytes = reinterpret_cast<const char*>(blob.data);
  EXPECT_FALSE(__asan_address_is_poisoned(bytes + 19));
  EXPECT_TRUE(__asan_address_is_poisoned(bytes + 20));
}
#endif

TEST(BlobReshape, TheSameDimsAndLayoutKeepStorageAndContents) {
  const auto blob = make_blob({1, 1, 2, 2}, {1, 2, 3, 4});
  const float* before = blob->data;
  reshape(*blob, *make_shape(1, 1, 2, 2, kInterleaved));
  EXPECT_EQ(blob->data, before);
  EXPECT_EQ(values_of(*blob), (std::vector<float>{1, 2, 3, 4}));
}

TEST(BlobReshape, TheNewCountIsNotComparedSoTheOldOneStays) {
  const auto blob = make_blob({1, 1, 2, 2}, {1, 2, 3, 4});
  Shape shape = *blob;
  shape.count = 9;
  reshape(*blob, shape);
  EXPECT_EQ(blob->count, 4U);
}

TEST(BlobReshape, ABlobWithoutStorageGetsZeroesThoughItsShapeIsTheSame) {
  const auto blob = make_blob({1, 1, 2, 2});
  reshape(*blob, *blob);
  EXPECT_EQ(values_of(*blob), std::vector<float>(4, 0.0F));
}

TEST(BlobReshape, AnotherShapeIsZeroed) {
  const auto blob = make_blob({1, 1, 2, 2}, {1, 2, 3, 4});
  reshape(*blob, *make_shape(1, 3, 2, 1, kInterleaved));
  EXPECT_EQ(blob->dims, (Dims{1, 3, 2, 1}));
  EXPECT_TRUE(is_storage_aligned(blob->data));
  EXPECT_EQ(values_of(*blob), std::vector<float>(6, 0.0F));
}

TEST(BlobReshape, AnotherLayoutAloneLosesTheContents) {
  const auto blob = make_blob({1, 1, 2, 2}, {1, 2, 3, 4});
  reshape(*blob, *make_shape(1, 1, 2, 2, kPlanar));
  EXPECT_EQ(blob->layout, kPlanar);
  EXPECT_EQ(values_of(*blob), std::vector<float>(4, 0.0F));
}

TEST(BlobReshape, ACountOfZeroReleasesTheStorage) {
  const auto blob = make_blob({1, 1, 2, 2}, {1, 2, 3, 4});
  reshape(*blob, *make_shape(0, 1, 2, 2, kInterleaved));
  EXPECT_EQ(blob->data, nullptr);
  EXPECT_EQ(blob->count, 0U);
  EXPECT_EQ(blob->dims, (Dims{0, 1, 2, 2}));
}

TEST(BlobReshape, ABorrowerTakesTheShapeAndGetsNoStorage) {
  const auto lender = make_blob({1, 1, 2, 2}, {1, 2, 3, 4});
  const auto borrower = make_blob({1, 1, 2, 2});
  borrow(*borrower, *lender);
  reshape(*borrower, *make_shape(1, 1, 1, 2, kInterleaved));
  EXPECT_EQ(borrower->count, 2U);
  EXPECT_EQ(borrower->data, nullptr);
  bind(*borrower);
  EXPECT_EQ(borrower->data, lender->data);
}

Blob planar(Dims dims, std::size_t values) {
  Blob blob;
  blob.dims = dims;
  blob.count = static_cast<std::uint32_t>(values);
  blob.layout = kPlanar;
  assign(blob, count_up(values).data());
  return blob;
}

TEST(BlobToInterleaved, PlanarTwoByTwoByThree) {
  Blob blob = planar({1, 2, 2, 3}, 12);
  to_interleaved(blob, 4, 3);
  EXPECT_EQ(values_of(blob), (std::vector<float>{0, 4, 8, 1, 5, 9, 2, 6, 10, 3, 7, 11}));
  EXPECT_TRUE(is_storage_aligned(blob.data));
  EXPECT_EQ(blob.layout, kPlanar) << "the caller clears the layout";
}

TEST(BlobToInterleaved, EachBlockIsTurnedByItself) {
  Blob blob = planar({2, 1, 2, 2}, 8);
  to_interleaved(blob, 2, 2);
  EXPECT_EQ(values_of(blob), (std::vector<float>{0, 2, 1, 3, 4, 6, 5, 7}));
}

TEST(BlobToInterleaved, LeavesInterleavedBlobsAndPlanesOfOneElementAlone) {
  const auto interleaved = make_blob({1, 2, 2, 3}, count_up(12));
  const float* before = interleaved->data;
  to_interleaved(*interleaved, 4, 3);
  EXPECT_EQ(interleaved->data, before);
  Blob pixels = planar({4, 1, 1, 3}, 12);
  before = pixels.data;
  to_interleaved(pixels, 1, 3);
  EXPECT_EQ(pixels.data, before);
  EXPECT_EQ(values_of(pixels), count_up(12));
}

TEST(BlobToInterleaved, AnIncompleteLastBlockStaysAsItIs) {
  Blob blob = planar({1, 1, 1, 7}, 7);
  to_interleaved(blob, 2, 2);
  EXPECT_EQ(values_of(blob), (std::vector<float>{0, 2, 1, 3, 4, 5, 6}));
}

TEST(BlobToInterleaved, SizesThatDoNotDescribeTheBlobReachNoOtherMemory) {
  for (const auto& [plane, channels] : std::vector<std::pair<std::uint32_t, std::uint32_t>>{
           {0, 3}, {4, 0}, {0, 0}, {100, 100}, {0xFFFFFFFF, 0xFFFFFFFF}}) {
    Blob blob = planar({1, 2, 2, 3}, 12);
    to_interleaved(blob, plane, channels);
    EXPECT_EQ(values_of(blob), count_up(12)) << plane << " x " << channels;
  }
  Blob empty;
  empty.layout = kPlanar;
  to_interleaved(empty, 4, 3);
  EXPECT_EQ(empty.data, nullptr);
}

TEST(BlobSubtractRepeated, TakesTheMeanFromEveryBatchItem) {
  std::vector<float> values{10, 20, 30, 40};
  const std::vector<float> mean{1, 2};
  subtract_repeated(values.data(), values.data(), mean.data(), -1.0F, 4, 2);
  EXPECT_EQ(values, (std::vector<float>{9, 18, 29, 38}));
}

TEST(BlobSubtractRepeated, CopiesWhenSourceAndDestinationDiffer) {
  const std::vector<float> source{10, 20, 30};
  const std::vector<float> mean{1, 2, 3};
  std::vector<float> values(3, 99.0F);
  subtract_repeated(values.data(), source.data(), mean.data(), -1.0F, 3, 3);
  EXPECT_EQ(values, (std::vector<float>{9, 18, 27}));
  EXPECT_EQ(source, (std::vector<float>{10, 20, 30}));
}

TEST(BlobSubtractRepeated, TheLastRepetitionEndsWithTheValues) {
  const std::vector<float> mean{1, 2, 3};
  std::vector<float> values(5, 10.0F);
  subtract_repeated(values.data(), values.data(), mean.data(), -1.0F, 5, 3);
  EXPECT_EQ(values, (std::vector<float>{9, 8, 7, 9, 8}));
}

TEST(BlobSubtractRepeated, AMeanWithoutValuesSubtractsNothing) {
  std::vector<float> values{1, 2};
  subtract_repeated(values.data(), values.data(), nullptr, -1.0F, 2, 0);
  EXPECT_EQ(values, (std::vector<float>{1, 2}));
}

TEST(BlobBorrow, TheBorrowerShowsTheLendersDataAndGivesItsOwnBack) {
  const auto lender = make_blob({1, 1, 1, 2}, {1, 2});
  const auto borrower = make_blob({1, 1, 1, 2}, {8, 9});
  borrow(*borrower, *lender);
  EXPECT_EQ(borrower->data, lender->data);
  EXPECT_EQ(lender->storage.use_count(), 2);
}

TEST(BlobBorrow, AChainLeadsToItsRoot) {
  const auto a = make_blob({1, 1, 1, 2}, {1, 2});
  const auto b = make_blob({1, 1, 1, 2});
  const auto c = make_blob({1, 1, 1, 2});
  borrow(*c, *b);  // b is a lender before it borrows itself
  EXPECT_EQ(c->data, nullptr);
  borrow(*b, *a);
  bind(*c);
  EXPECT_EQ(c->data, a->data);
}

TEST(BlobBorrow, ACycleKeepsItsStorage) {
  const auto a = make_blob({1, 1, 1, 2}, {1, 2});
  const auto b = make_blob({1, 1, 1, 2});
  const auto c = make_blob({1, 1, 1, 2});
  borrow(*b, *a);
  borrow(*c, *b);
  borrow(*a, *c);
  borrow(*b, *c);
  borrow(*a, *a);
  EXPECT_EQ(values_of(*a), (std::vector<float>{1, 2}));
  EXPECT_EQ(b->data, a->data);
  EXPECT_EQ(c->data, a->data);
}

TEST(BlobBorrow, ALenderWithFewerElementsShowsNone) {
  const auto lender = make_blob({1, 1, 1, 2}, {1, 2});
  const auto borrower = make_blob({1, 1, 1, 3});
  borrow(*borrower, *lender);
  EXPECT_EQ(borrower->data, nullptr);
  reshape(*lender, *make_shape(1, 1, 1, 4, kInterleaved));
  bind(*borrower);
  EXPECT_EQ(borrower->data, lender->data);
  reshape(*lender, *make_shape(1, 1, 1, 1, kInterleaved));
  bind(*borrower);
  EXPECT_EQ(borrower->data, nullptr);
}

TEST(BlobBorrow, TheDataStaysValidWhenTheLenderStartsToBorrow) {
  const auto a = make_blob({1, 1, 1, 2}, {1, 2});
  const auto b = make_blob({1, 1, 1, 2});
  const auto other = make_blob({1, 1, 1, 2}, {3, 4});
  borrow(*b, *a);
  borrow(*a, *other);
  EXPECT_EQ(values_of(*b), (std::vector<float>{1, 2}));
  bind(*b);
  EXPECT_EQ(b->data, other->data);
}

TEST(BlobBorrow, ABlobThatBorrowsNothingIsLeftAloneByBind) {
  const auto blob = make_blob({1, 1, 1, 2}, {1, 2});
  bind(*blob);
  EXPECT_EQ(values_of(*blob), (std::vector<float>{1, 2}));
}

}  // namespace
}  // namespace ravu::test
