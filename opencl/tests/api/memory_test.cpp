// Memories: layouts, locks, what cannot be allocated.
#include <gtest/gtest.h>

#include <algorithm>

#include "support/Graph.h"

namespace ravu::opencl::test {
namespace {

TEST(Memory, FreshMemoryIsZeroed) {
  const Dims dims = {2, 3, 4, 5};
  cldnn_memory memory =
      cldnn_allocate_memory(shared_engine(), layout(dims, CLDNN_FORMAT_YXFB), nullptr);
  EXPECT_EQ(download(memory).data, zeros(dims).data);
  cldnn_release_memory(memory, nullptr);
}

TEST(Memory, LayoutsComeBackWithTheirCounts) {
  cldnn_layout wanted = layout({2, 3, 4, 5}, CLDNN_FORMAT_BFYX);
  wanted.size.batch_count = wanted.size.feature_count = wanted.size.spatial_count = 0;
  cldnn_status status = CLDNN_SUCCESS;
  cldnn_memory memory = cldnn_allocate_memory(shared_engine(), wanted, &status);
  ASSERT_EQ(status, CLDNN_SUCCESS);
  const cldnn_layout got = cldnn_get_memory_layout(memory, &status);
  EXPECT_EQ(got.data_type, size_t{CLDNN_FLOAT32});
  EXPECT_EQ(got.format, CLDNN_FORMAT_BFYX);
  EXPECT_TRUE(std::equal(got.size.sizes, got.size.sizes + 8, wanted.size.sizes));
  EXPECT_EQ(got.size.batch_count, 1u);
  EXPECT_EQ(got.size.feature_count, 1u);
  EXPECT_EQ(got.size.spatial_count, 2u);
  EXPECT_EQ(got.padding.upper.sizes[0], 0);
  cldnn_release_memory(memory, nullptr);
}

TEST(Memory, LocksNestAtOneAddress) {
  cldnn_memory memory = upload(shared_engine(), along_x({1, 2, 3}), CLDNN_FORMAT_YXFB);
  cldnn_status status = CLDNN_SUCCESS;
  void* first = cldnn_lock_memory(memory, &status);
  EXPECT_EQ(cldnn_lock_memory(memory, &status), first);
  cldnn_unlock_memory(memory, &status);
  static_cast<float*>(first)[1] = 7;
  cldnn_unlock_memory(memory, &status);
  EXPECT_EQ(status, CLDNN_SUCCESS);
  EXPECT_EQ(download(memory).data, (std::vector<float>{1, 7, 3}));
  cldnn_unlock_memory(memory, &status);
  EXPECT_EQ(status, CLDNN_ERROR);
  cldnn_release_memory(memory, nullptr);
}

TEST(Memory, ALockedOneCanBeReleased) {
  cldnn_memory memory = upload(shared_engine(), along_x({1, 2, 3}), CLDNN_FORMAT_YXFB);
  cldnn_lock_memory(memory, nullptr);
  cldnn_status status = 77;
  cldnn_release_memory(memory, &status);
  EXPECT_EQ(status, CLDNN_SUCCESS);
}

cldnn_status allocation(void (*spoil)(cldnn_layout&)) {
  cldnn_layout wanted = layout({2, 3, 4, 5}, CLDNN_FORMAT_YXFB);
  spoil(wanted);
  cldnn_status status = 77;
  cldnn_memory memory = cldnn_allocate_memory(shared_engine(), wanted, &status);
  EXPECT_EQ(memory == nullptr, status != CLDNN_SUCCESS);
  if (memory != nullptr) cldnn_release_memory(memory, nullptr);
  return status;
}

TEST(Memory, TakesAllFormatsAndDataTypesAndNoOthers) {
  EXPECT_EQ(allocation([](auto& l) { l.format = -1; }), CLDNN_SUCCESS);
  EXPECT_EQ(allocation([](auto& l) { l.format = 7; }), CLDNN_SUCCESS);
  EXPECT_EQ(allocation([](auto& l) { l.format = 8; }), CLDNN_ERROR);
  EXPECT_EQ(allocation([](auto& l) { l.format = -2; }), CLDNN_ERROR);
  EXPECT_EQ(allocation([](auto& l) { l.data_type = CLDNN_INT8; }), CLDNN_SUCCESS);
  EXPECT_EQ(allocation([](auto& l) { l.data_type = CLDNN_FLOAT16; }), CLDNN_SUCCESS);
  EXPECT_EQ(allocation([](auto& l) { l.data_type = 131; }), CLDNN_ERROR);
  EXPECT_EQ(allocation([](auto& l) { l.data_type = 0; }), CLDNN_ERROR);
  EXPECT_EQ(allocation([](auto& l) { l.padding.lower.sizes[1] = 1; }), CLDNN_ERROR);
}

TEST(Memory, EmptyAndEnormousOnesAreOutOfResources) {
  EXPECT_EQ(allocation([](auto& l) { l.size.sizes[0] = 0; }), CLDNN_OUT_OF_RESOURCES);
  EXPECT_EQ(allocation([](auto& l) { l.size.sizes[7] = 0; }), CLDNN_OUT_OF_RESOURCES);
  EXPECT_EQ(allocation([](auto& l) { l.size.sizes[2] = -4; }), CLDNN_OUT_OF_RESOURCES);
  EXPECT_EQ(allocation([](auto& l) {
              for (int32_t& size : l.size.sizes) size = 2147483647;
            }),
            CLDNN_OUT_OF_RESOURCES);
}

}  // namespace
}  // namespace ravu::opencl::test
