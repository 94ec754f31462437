// A run is a numbered shift: the caller posts the task under a new number, everybody draws indices
// from one counter, and the caller waits until the last worker has left. Workers sleep in the
// kernel between shifts after a moment of looking, so an idle network costs nothing.
#include "kernels/workers.h"

#include <cblas.h>
#include <hwy/cache_control.h>

#include <algorithm>
#include <atomic>
#include <cstdint>
#include <system_error>
#include <thread>
#include <vector>

#ifndef _WIN32
#include <unistd.h>
#endif

namespace ravu::kernels {
namespace {

// Looks at a word before sleeping on it: some ten microseconds, more than the pause between most
// layers and than waking up takes, far below a time slice of the scheduler.
constexpr int kLooks = 1500;

// Waits until the word differs from `seen`; returns it.
std::uint32_t await_change(const std::atomic<std::uint32_t>& word, std::uint32_t seen) {
  for (int look = 0; look < kLooks; ++look) {
    const std::uint32_t now = word.load(std::memory_order_acquire);
    if (now != seen) return now;
    hwy::Pause();
  }
  word.wait(seen, std::memory_order_acquire);
  return word.load(std::memory_order_acquire);
}

// Threads do not survive a fork: a child must know that its copy of the crew is empty.
std::int64_t process() {
#ifdef _WIN32
  return 0;
#else
  return getpid();
#endif
}

}  // namespace

struct Workers::Crew {
  std::atomic<std::uint32_t> shift{0};
  std::atomic<std::uint32_t> busy{0};  // workers that have not left the shift
  std::atomic<std::size_t> next{0};
  std::size_t count = 0;
  const void* task = nullptr;
  Piece piece = nullptr;
  bool closing = false;
  std::int64_t owner = process();
  std::vector<std::thread> threads;

  // Fewer threads than asked for do the same work.
  void hire(std::size_t wanted) {
    threads.reserve(wanted);
    try {
      while (threads.size() < wanted) {
        threads.emplace_back([this, worker = threads.size() + 1] { work(worker); });
      }
    } catch (const std::system_error&) {
    }
  }

  void draw(std::size_t worker) {
    for (;;) {
      const std::size_t index = next.fetch_add(1, std::memory_order_relaxed);
      if (index >= count) return;
      piece(task, index, worker);
    }
  }

  void work(std::size_t worker) {
    for (std::uint32_t seen = 0;;) {
      const std::uint32_t now = await_change(shift, seen);
      if (now == seen) continue;
      seen = now;
      if (closing) return;
      draw(worker);
      if (busy.fetch_sub(1, std::memory_order_acq_rel) == 1) busy.notify_one();
    }
  }

  void post() {
    busy.store(static_cast<std::uint32_t>(threads.size()), std::memory_order_relaxed);
    next.store(0, std::memory_order_relaxed);
    shift.fetch_add(1, std::memory_order_release);
    shift.notify_all();
  }

  void wait_for_all() {
    for (std::uint32_t left = busy.load(std::memory_order_acquire); left != 0;) {
      left = await_change(busy, left);
    }
  }
};

std::size_t blas_threads() {
  return static_cast<std::size_t>(std::max(openblas_get_num_threads(), 1));
}

Workers::Workers() = default;

Workers::~Workers() {
  dismiss();
}

void Workers::set_threads(std::size_t threads) {
  threads = std::max<std::size_t>(threads, 1);
  if (threads == threads_) return;
  dismiss();
  threads_ = threads;
}

void Workers::dismiss() {
  if (crew_ == nullptr) return;
  if (crew_->owner != process()) {
    // The threads stayed with the parent. Destroying their handles would end the process.
    static_cast<void>(crew_.release());
    return;
  }
  crew_->closing = true;
  crew_->post();
  for (std::thread& thread : crew_->threads) thread.join();
  crew_.reset();
}

void Workers::run_erased(std::size_t count, const void* task, Piece piece) {
  if (threads_ == 1 || count < 2) {
    for (std::size_t index = 0; index < count; ++index) piece(task, index, 0);
    return;
  }
  if (team_ != nullptr && team_(static_cast<std::int32_t>(threads_), count, task, piece)) return;
  if (crew_ != nullptr && crew_->owner != process()) dismiss();
  if (crew_ == nullptr) {
    crew_ = std::make_unique<Crew>();
    crew_->hire(threads_ - 1);
  }
  crew_->count = count;
  crew_->task = task;
  crew_->piece = piece;
  crew_->post();
  crew_->draw(0);
  crew_->wait_for_all();
}

}  // namespace ravu::kernels
