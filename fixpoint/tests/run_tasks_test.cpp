// Work that callers give to the library's threads. Without OpenMP there are none, which is said.
#include <gtest/gtest.h>

#include <array>
#include <atomic>
#include <vector>

#include "operators.h"

namespace ravu::fixpoint::test {
namespace {

#ifdef _OPENMP
constexpr bool kHasThreads = true;
#else
constexpr bool kHasThreads = false;
#endif

constexpr std::size_t kThreads = 3;

struct Seen {
  std::vector<std::atomic<int>> calls;  // of each index
  std::array<std::atomic<int>, kThreads> inside{};
  std::atomic<int> overlaps{0};
};

void note(const void* object, std::size_t index, std::size_t thread) {
  auto& seen = *static_cast<Seen*>(const_cast<void*>(object));
  ++seen.calls.at(index);
  if (seen.inside.at(thread).fetch_add(1) != 0) ++seen.overlaps;
  seen.inside.at(thread).fetch_sub(1);
}

TEST(RunTasks, CallsEachIndexOnceAndAThreadOnceAtATime) {
  const auto run_tasks = function<RunTasks>(kRunTasks);
  for (std::size_t threads = 1; threads <= kThreads; ++threads) {
    for (const std::size_t count : {0U, 1U, 2U, 200U}) {
      Seen seen{std::vector<std::atomic<int>>(count)};
      EXPECT_EQ(run_tasks(static_cast<std::int32_t>(threads), count, &seen, note), kHasThreads);
      for (const auto& calls : seen.calls) EXPECT_EQ(calls, kHasThreads ? 1 : 0);
      EXPECT_EQ(seen.overlaps, 0);
    }
  }
}

TEST(RunTasks, HostileArgumentsAreRefused) {
  const auto run_tasks = function<RunTasks>(kRunTasks);
  Seen seen{std::vector<std::atomic<int>>(1)};
  EXPECT_FALSE(run_tasks(1, 1, &seen, nullptr));
  for (const std::int32_t threads : {0, -1, 0x7FFFFFFF}) {
    EXPECT_FALSE(run_tasks(threads, 1, &seen, note));
  }
  EXPECT_EQ(seen.calls[0], 0);
}

// As the engine does where a layer has more groups than there are threads.
TEST(RunTasks, TasksMayRunOperators) {
  ConvCase c;
  c.height = c.width = 20;
  c.channels = 8;
  c.outputs = 16;
  c.kernel_h = c.kernel_w = 3;
  fill(c, 1, true);
  struct Work {
    const ConvCase& c;
    std::vector<std::vector<float>> results;
  } work{c, std::vector<std::vector<float>>(8)};
  const auto compute = [](const void* object, std::size_t index, std::size_t) {
    auto& w = *static_cast<Work*>(const_cast<void*>(object));
    w.results[index] = Conv(w.c).run(w.c).value();
  };
  EXPECT_EQ(function<RunTasks>(kRunTasks)(2, work.results.size(), &work, compute), kHasThreads);
  const std::vector<float> expected = kHasThreads ? Conv(c).run(c).value() : std::vector<float>();
  for (const auto& result : work.results) EXPECT_EQ(result, expected);
}

}  // namespace
}  // namespace ravu::fixpoint::test
