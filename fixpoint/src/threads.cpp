// OpenMP's setting belongs to the calling thread, so nobody else notices.
#include "threads.h"

#ifdef _OPENMP
#include <omp.h>

#include <atomic>
#endif

namespace ravu::fixpoint {

#ifdef _OPENMP

ThreadCount::ThreadCount(int threads) : before_(omp_get_max_threads()) {
  omp_set_num_threads(threads);
}

ThreadCount::~ThreadCount() {
  omp_set_num_threads(before_);
}

bool run_tasks(int threads, std::size_t count, const void* object, Task task) {
  std::atomic<std::size_t> next{0};
#pragma omp parallel num_threads(threads)
  {
    const auto thread = static_cast<std::size_t>(omp_get_thread_num());
    for (std::size_t i = next.fetch_add(1, std::memory_order_relaxed); i < count;
         i = next.fetch_add(1, std::memory_order_relaxed)) {
      task(object, i, thread);
    }
  }
  return true;
}

#else

ThreadCount::ThreadCount(int) : before_(1) {}

ThreadCount::~ThreadCount() = default;

bool run_tasks(int, std::size_t, const void*, Task) {
  return false;
}

#endif

}  // namespace ravu::fixpoint
