// OpenMP's setting belongs to the calling thread, so nobody else notices.
#include "threads.h"

#ifdef _OPENMP
#include <omp.h>
#endif

namespace ravu::fixpoint {

#ifdef _OPENMP

ThreadCount::ThreadCount(int threads) : before_(omp_get_max_threads()) {
  omp_set_num_threads(threads);
}

ThreadCount::~ThreadCount() {
  omp_set_num_threads(before_);
}

#else

ThreadCount::ThreadCount(int) : before_(1) {}

ThreadCount::~ThreadCount() = default;

#endif

}  // namespace ravu::fixpoint
