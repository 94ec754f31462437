// Threads that share one kernel's work. They belong to one network, sleep while there is nothing
// to do and are never seen from outside: `run` returns when the work is done.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>

namespace ravu::kernels {

// The thread count that the BLAS library is set to: one knob serves it and the workers.
std::size_t blas_threads();

class Workers {
 public:
  // One thread: everything runs in the caller.
  Workers();
  Workers(const Workers&) = delete;
  Workers& operator=(const Workers&) = delete;
  ~Workers();

  // How many threads work together, the caller's included; at least 1. The others start with the
  // first run. Not while a run is in progress.
  void set_threads(std::size_t threads);
  std::size_t threads() const { return threads_; }

  // One piece of a run: calls a task with an index and a worker.
  using Piece = void (*)(const void* task, std::size_t index, std::size_t worker);

  // Threads of somebody else, to share the work in place of the Workers' own: they keep the
  // promises of `run` for `count` indices and `threads` workers, or answer false and do nothing.
  using Team = bool (*)(std::int32_t threads, std::size_t count, const void* task, Piece piece);

  // Lets a team do the work; null: the Workers' own threads. Not while a run is in progress.
  void set_team(Team lender) { team_ = lender; }
  Team team() const { return team_; }

  // Calls task(index, worker) once for each index below count, each worker below `threads` running
  // one call at a time; which worker takes which index is open. Tasks do not throw.
  template <class Task>
  void run(std::size_t count, const Task& task) {
    run_erased(count, &task, [](const void* object, std::size_t index, std::size_t worker) {
      (*static_cast<const Task*>(object))(index, worker);
    });
  }

 private:
  struct Crew;

  void run_erased(std::size_t count, const void* task, Piece piece);
  void dismiss();

  std::unique_ptr<Crew> crew_;  // null until a run needs it
  std::size_t threads_ = 1;
  Team team_ = nullptr;
};

}  // namespace ravu::kernels
