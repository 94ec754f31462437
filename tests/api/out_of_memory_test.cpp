// What the exports do when memory runs out. This program replaces operator new, so that one chosen
// allocation fails, or all from then on; each test fails every allocation of a call in turn.
#include <gtest/gtest.h>

#include <atomic>
#include <cstdint>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <limits>
#include <new>
#include <set>
#include <string>

#include "layers/ConvLayer.h"
#include "networks/networks.h"
#include "support/handles.h"

namespace {

constexpr auto kNever = std::numeric_limits<std::int64_t>::max();
constexpr std::size_t kAnySize = std::numeric_limits<std::size_t>::max();

std::atomic<std::int64_t> allocations_until_failure{kNever};
std::atomic<bool> keep_failing{false};
std::atomic<std::size_t> largest_allocation{kAnySize};
std::atomic<bool> has_failed{false};

bool fails(std::size_t size) {
  const std::int64_t left = allocations_until_failure--;
  const bool failing = left == 0 || (left < 0 && keep_failing) || size > largest_allocation;
  if (failing) has_failed = true;
  return failing;
}

void* obtain(std::size_t size, std::size_t alignment) {
  void* memory = nullptr;
  if (fails(size) || posix_memalign(&memory, alignment, size) != 0) throw std::bad_alloc();
  return memory;
}

// Not inlined: g++ would warn of free on what it takes for its own operator new's memory.
[[gnu::noinline]] void give_back(void* memory) {
  std::free(memory);
}

}  // namespace

void* operator new(std::size_t size) {
  return obtain(size, alignof(std::max_align_t));
}
void* operator new(std::size_t size, std::align_val_t alignment) {
  return obtain(size, static_cast<std::size_t>(alignment));
}
void operator delete(void* memory) noexcept {
  give_back(memory);
}
void operator delete(void* memory, std::size_t) noexcept {
  give_back(memory);
}
void operator delete(void* memory, std::align_val_t) noexcept {
  give_back(memory);
}
void operator delete(void* memory, std::size_t, std::align_val_t) noexcept {
  give_back(memory);
}

namespace ravu::test {
namespace {

using Values = std::vector<float>;
using ::testing::internal::CaptureStderr;
using ::testing::internal::GetCapturedStderr;

// While it lives, the allocation after the next `n` fails; `rest`: and every one after it.
class FailAllocation {
 public:
  FailAllocation(std::int64_t n, bool rest) {
    has_failed = false;
    keep_failing = rest;
    allocations_until_failure = n;
  }
  FailAllocation(const FailAllocation&) = delete;
  FailAllocation& operator=(const FailAllocation&) = delete;
  ~FailAllocation() { allocations_until_failure = kNever; }
};

// While it lives, allocations above `bytes` fail.
class LimitAllocations {
 public:
  explicit LimitAllocations(std::size_t bytes) { largest_allocation = bytes; }
  LimitAllocations(const LimitAllocations&) = delete;
  LimitAllocations& operator=(const LimitAllocations&) = delete;
  ~LimitAllocations() { largest_allocation = kAnySize; }
};

// One convolution of each form, and the other layers that hold weights.
NaiveNetwork every_form() {
  NaiveNetwork network(16, 3);
  network.conv("data", "direct", {.kernels = 32, .kernel = 1});
  network.conv("direct", "winograd", {.kernels = 32, .kernel = 3, .pad = 1});
  network.conv("winograd", "depthwise", {.kernels = 1, .kernel = 3, .pad = 1, .groups = 32});
  network.pool("depthwise", "half", {.maximum = true, .kernel = 2, .stride = 2});
  network.conv("half", "small", {.kernels = 32, .kernel = 3, .pad = 1});
  network.lrn("small", "normal", 5);
  network.fully_connected("normal", "dense", 8 * 8 * 32, 24);
  return network;
}

// Calls attempt(n, rest) for n = 0, 1, ... until it runs through without a failed allocation.
// Returns how many allocations there were to fail.
template <class Attempt>
std::int64_t fail_every_allocation(Attempt attempt) {
  std::int64_t n = 0;
  for (const bool rest : {false, true}) {
    for (n = 0;; ++n) {
      SCOPED_TRACE("allocation " + std::to_string(n) + (rest ? " and all after it" : ""));
      attempt(n, rest);
      if (!has_failed || ::testing::Test::HasFailure()) break;
    }
  }
  return n;
}

bool set_up(const Handle& handle) {
  return ravu_setup_runEngine(handle, RAVU_MODE_CPU);
}

TEST(OutOfMemory, ALoadGivesNullAndTheLine) {
  const TemporaryFile file(small_classifier().set("need_crop", integer(1)).bytes());
  const std::string line = "Fail to parse model (" + std::string(file.path()) + ")\n";
  const auto attempts = fail_every_allocation([&](std::int64_t n, bool rest) {
    ravu_network* network = nullptr;
    CaptureStderr();
    {
      const FailAllocation failing(n, rest);
      EXPECT_NO_THROW(network = ravu_create_network_private(file.path(), true, 2));
    }
    const std::string printed = GetCapturedStderr();
    EXPECT_EQ(network == nullptr, has_failed.load());
    EXPECT_EQ(printed, has_failed ? line : "");
    ravu_destroy_network(network);
  });
  EXPECT_GT(attempts, 20);
}

TEST(OutOfMemory, SetUpIsFalseAndCanBeRepeated) {
  for (const std::uint32_t mode : {RAVU_MODE_CPU, RAVU_MODE_FIXED_POINT}) {
    const auto attempts = fail_every_allocation([&](std::int64_t n, bool rest) {
      const Handle handle(small_classifier());
      bool done = false;
      {
        const FailAllocation failing(n, rest);
        EXPECT_NO_THROW(done = ravu_setup_runEngine(handle, mode));
      }
      EXPECT_EQ(done, !has_failed);
      EXPECT_TRUE(set_up(handle));
      EXPECT_EQ(run(handle, {1, 2, 3, 4}), (Values{5, 13}));
    });
    EXPECT_GT(attempts, 2);
  }
}

TEST(OutOfMemory, AShapeChangeHappensWholeOrNotAtAll) {
  const Values pixels{1, 2, 3, 4, 0, 0, 1, 0};
  const auto attempts = fail_every_allocation([&](std::int64_t n, bool rest) {
    const Handle handle(small_classifier());
    ASSERT_TRUE(set_up(handle));
    EXPECT_EQ(run(handle, {1, 2, 3, 4}), (Values{5, 13}));
    {
      const FailAllocation failing(n, rest);
      EXPECT_NO_THROW(ravu_set_InputData_byRawData_float(handle, pixels.data(), 2, 2, 2, 1));
    }
    EXPECT_EQ(handle.network().input->dims, (has_failed ? Dims{1, 2, 2, 1} : Dims{2, 2, 2, 1}));
    ravu_forward(handle, RAVU_MODE_CPU);
    EXPECT_EQ(values_of(ravu_getOutput_blob(handle, 0)),
              has_failed ? (Values{5, 13}) : (Values{5, 13, 2, 7}));
  });
  EXPECT_GT(attempts, 3);
}

TEST(OutOfMemory, AForwardRunThrowsNothing) {
  fail_every_allocation([&](std::int64_t n, bool rest) {
    const Handle handle(small_classifier());
    ASSERT_TRUE(set_up(handle));
    {
      const FailAllocation failing(n, rest);
      EXPECT_NO_THROW(ravu_forward(handle, RAVU_MODE_CPU));
    }
    EXPECT_EQ(run(handle, {1, 2, 3, 4}), (Values{5, 13}));
  });
}

// Weights are rearranged at set-up, once: a pass only lists what it works on.
TEST(OutOfMemory, NeitherTheFirstForwardRunNorALaterOneAsksForRoomForWeights) {
  const ReadyNetwork network(every_form());
  std::set<kernels::ConvForm> forms;
  for (const auto& layer : network.network().layers) {
    if (const auto* conv = dynamic_cast<const ConvLayer*>(layer.get())) {
      forms.insert(conv_form(*conv));
    }
  }
  using enum kernels::ConvForm;
  EXPECT_EQ(forms, (std::set{kDirect, kWinograd, kSmallWinograd, kDepthwise}));
  std::int64_t allocations[2];
  for (std::int64_t& count : allocations) {
    const LimitAllocations limit(2048);
    has_failed = false;
    allocations_until_failure = kNever;
    ravu_forward(network, RAVU_MODE_CPU);
    count = kNever - allocations_until_failure;
    EXPECT_FALSE(has_failed);
  }
  allocations_until_failure = kNever;
  EXPECT_EQ(allocations[0], allocations[1]);
}

TEST(OutOfMemory, AnImageIsNull) {
  const Handle handle(small_classifier());
  const Bytes pixels{1, 2, 3, 4};
  const auto attempts = fail_every_allocation([&](std::int64_t n, bool rest) {
    ravu_blob* blob = nullptr;
    {
      const FailAllocation failing(n, rest);
      EXPECT_NO_THROW(blob = ravu_create_data_blob(handle, pixels.data(), 2, 2, 1, 2));
    }
    EXPECT_EQ(blob == nullptr, has_failed.load());
    const BlobPtr owner(to_blob(blob));
  });
  EXPECT_GT(attempts, 1);
}

TEST(OutOfMemory, HandingInImagesNeedsNone) {
  const Handle handle(small_classifier(), /*batch=*/2);
  const Bytes pixels{1, 2, 3, 4};
  ravu_blob* blobs[2];
  for (ravu_blob*& blob : blobs) blob = ravu_create_data_blob(handle, pixels.data(), 2, 2, 1, 2);
  {
    const FailAllocation failing(0, /*rest=*/true);
    EXPECT_TRUE(ravu_set_InputData(handle, blobs, 2));
  }
  EXPECT_EQ(input_values(handle), (Values{1, 2, 3, 4, 1, 2, 3, 4}));
}

TEST(OutOfMemory, TheMeanStaysAsItWas) {
  const Values before{1, 2, 3, 4};
  const Values after{5, 6, 7, 8};
  const auto attempts = fail_every_allocation([&](std::int64_t n, bool rest) {
    const Handle handle(small_classifier());
    ravu_set_meanData(handle, before.data());
    {
      const FailAllocation failing(n, rest);
      EXPECT_NO_THROW(ravu_set_meanData(handle, after.data()));
    }
    EXPECT_EQ(values_of(*handle.network().mean), has_failed ? before : after);
  });
  EXPECT_GT(attempts, 1);
}

TEST(OutOfMemory, ASaveThrowsNothingAndLeavesAWholeFile) {
  const Handle handle(small_classifier());
  fail_every_allocation([&](std::int64_t n, bool rest) {
    const TemporaryFile file(Bytes{'o', 'l', 'd'});
    CaptureStderr();
    {
      const FailAllocation failing(n, rest);
      EXPECT_NO_THROW(ravu_save_network_to_private(handle, file.path(), false));
    }
    const bool failed = !GetCapturedStderr().empty();
    std::ifstream saved(file.path(), std::ios::binary);
    const std::string content{std::istreambuf_iterator<char>(saved), {}};
    EXPECT_EQ(content == "old", failed);
  });
}

// The sizes are ones that a tensor can hold; the limit stands for a machine that has less.
TEST(OutOfMemory, LargeSizesAreRefusedLikeImpossibleOnes) {
  const LimitAllocations limit(std::size_t{1} << 20);
  const TemporaryFile file(small_classifier().bytes());
  CaptureStderr();
  EXPECT_EQ(ravu_create_network_private(file.path(), false, 1U << 20), nullptr);
  EXPECT_EQ(GetCapturedStderr(), "Fail to parse model (" + std::string(file.path()) + ")\n");
  const Handle handle(small_classifier());
  const std::uint8_t pixel = 0;
  EXPECT_EQ(ravu_create_data_blob(handle, &pixel, 1, 1U << 20, 1, /*stride=*/0), nullptr);
  const float value = 0;
  ravu_set_InputData_byRawData_float(handle, &value, 1U << 20, 2, 2, 1);
  ravu_set_InputData_byRawData_byte(handle, &pixel, 1, 1U << 10, 1U << 10, 1);
  ravu_set_InputData_byRawData_test(handle, &pixel, 1, 2, 2, 1U << 18);
  EXPECT_EQ(handle.network().input->dims, (Dims{1, 2, 2, 1}));
}

}  // namespace
}  // namespace ravu::test
