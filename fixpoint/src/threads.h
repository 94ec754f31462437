// Sharing work among OpenMP's threads, which oneDNN uses too.
#pragma once

#include <cstddef>

#include "fixpoint/fixpoint.h"

namespace ravu::fixpoint {

inline constexpr std::int32_t kMaxThreads = 1024;

// While it lives, oneDNN works with this many threads for the calling thread; then OpenMP's setting
// is what it was.
class ThreadCount {
 public:
  explicit ThreadCount(int threads);
  ThreadCount(const ThreadCount&) = delete;
  ThreadCount& operator=(const ThreadCount&) = delete;
  ~ThreadCount();

 private:
  [[maybe_unused]] int before_;
};

// Calls work(i) for i < n, each once, from up to `threads` threads. The work does not throw.
template <class Work>
void share(int threads, std::size_t n, const Work& work) {
#ifdef _OPENMP
  if (threads > 1 && n > 1) {
#pragma omp parallel for num_threads(threads) schedule(static)
    for (std::ptrdiff_t i = 0; i < static_cast<std::ptrdiff_t>(n); ++i) {
      work(static_cast<std::size_t>(i));
    }
    return;
  }
#else
  (void)threads;
#endif
  for (std::size_t i = 0; i < n; ++i) work(i);
}

// Calls task(object, i, thread) for i < count, each once, from up to `threads` threads, which draw
// what to do next. False, and nothing was called, without OpenMP.
bool run_tasks(int threads, std::size_t count, const void* object, Task task);

}  // namespace ravu::fixpoint
