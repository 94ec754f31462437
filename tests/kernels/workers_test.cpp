// The worker threads: every index once, no worker twice at a time, changes of their number, and
// what a fork leaves.
#include "kernels/workers.h"

#include <gtest/gtest.h>

#include <atomic>
#include <vector>

#ifndef _WIN32
#include <sys/wait.h>
#include <unistd.h>
#endif

namespace ravu::test {
namespace {

// How often each index below count was run.
std::vector<int> run(kernels::Workers& workers, std::size_t count) {
  std::vector<std::atomic<int>> runs(count);
  workers.run(count, [&](std::size_t index, std::size_t) { ++runs[index]; });
  return {runs.begin(), runs.end()};
}

TEST(Workers, RunEachIndexOnceForAnyNumberOfThreads) {
  kernels::Workers workers;
  for (const std::size_t threads : {1, 2, 4, 3, 1, 8}) {
    workers.set_threads(threads);
    EXPECT_EQ(workers.threads(), threads);
    for (const std::size_t count : {0, 1, 2, 5, 100}) {
      EXPECT_EQ(run(workers, count), std::vector<int>(count, 1)) << threads << " " << count;
    }
  }
}

TEST(Workers, NoThreadsMeansOne) {
  kernels::Workers workers;
  workers.set_threads(0);
  EXPECT_EQ(workers.threads(), 1U);
}

TEST(Workers, AWorkerRunsOneTaskAtATime) {
  kernels::Workers workers;
  workers.set_threads(4);
  std::vector<std::atomic<int>> inside(4);
  std::atomic<int> overlaps{0};
  for (int round = 0; round < 50; ++round) {
    workers.run(40, [&](std::size_t, std::size_t worker) {
      if (inside.at(worker).fetch_add(1) != 0) ++overlaps;
      inside.at(worker).fetch_sub(1);
    });
  }
  EXPECT_EQ(overlaps, 0);
}

int team_runs = 0;

// A team of one: whatever is asked, by the last worker.
bool lone_team(std::int32_t threads, std::size_t count, const void* task,
               kernels::Workers::Piece piece) {
  ++team_runs;
  for (std::size_t i = 0; i < count; ++i) piece(task, i, static_cast<std::size_t>(threads) - 1);
  return true;
}

TEST(Workers, ATeamDoesTheWorkOfSeveral) {
  kernels::Workers workers;
  workers.set_threads(3);
  workers.set_team(lone_team);
  team_runs = 0;
  std::vector<std::size_t> seen;
  workers.run(4, [&](std::size_t, std::size_t worker) { seen.push_back(worker); });
  EXPECT_EQ(seen, std::vector<std::size_t>(4, 2));
  EXPECT_EQ(team_runs, 1);
  workers.set_team(nullptr);
  EXPECT_EQ(run(workers, 10), std::vector<int>(10, 1));
  EXPECT_EQ(team_runs, 1);
}

TEST(Workers, ATeamIsNotAskedForWhatOneThreadDoes) {
  kernels::Workers workers;
  workers.set_team(lone_team);
  team_runs = 0;
  EXPECT_EQ(run(workers, 10), std::vector<int>(10, 1));
  workers.set_threads(3);
  EXPECT_EQ(run(workers, 1), std::vector<int>(1, 1));
  EXPECT_EQ(team_runs, 0);
}

TEST(Workers, DoTheWorkOfATeamThatHasNoThreads) {
  kernels::Workers workers;
  workers.set_threads(3);
  workers.set_team(
      [](std::int32_t, std::size_t, const void*, kernels::Workers::Piece) { return false; });
  EXPECT_EQ(run(workers, 10), std::vector<int>(10, 1));
}

TEST(Workers, RunReturnsWhenAllIsDone) {
  kernels::Workers workers;
  workers.set_threads(3);
  // A plain variable per index: the sanitizer that watches threads sees a read that came too early.
  for (int round = 1; round <= 200; ++round) {
    std::vector<int> values(7, 0);
    workers.run(values.size(), [&](std::size_t index, std::size_t) { values[index] = round; });
    EXPECT_EQ(values, std::vector<int>(7, round));
  }
}

// The thread sanitizer does not let a forked child have threads.
#if defined(__SANITIZE_THREAD__)
#define RAVU_NO_THREADS_AFTER_FORK
#elif defined(__has_feature)
#if __has_feature(thread_sanitizer)
#define RAVU_NO_THREADS_AFTER_FORK
#endif
#endif

#if !defined(_WIN32) && !defined(RAVU_NO_THREADS_AFTER_FORK)
TEST(Workers, AForkedChildMakesItsOwn) {
  kernels::Workers workers;
  workers.set_threads(3);
  run(workers, 10);
  const pid_t child = fork();
  if (child == 0) {
    _exit(run(workers, 10) == std::vector<int>(10, 1) ? 0 : 1);
  }
  int status = -1;
  ASSERT_EQ(waitpid(child, &status, 0), child);
  EXPECT_TRUE(WIFEXITED(status));
  EXPECT_EQ(WEXITSTATUS(status), 0);
  EXPECT_EQ(run(workers, 10), std::vector<int>(10, 1));
}
#endif

}  // namespace
}  // namespace ravu::test
