// Scratch memory and worker threads that all layers of a network share. Layers run one after
// another, so one area as large as the hungriest layer's wish serves them all.
#pragma once

#include <cstddef>
#include <memory>

#include "kernels/workers.h"

namespace ravu {

class Workspace {
 public:
  // Makes room for `floats` floats, aligned to 64 bytes; called in Setup and Reshape. Never
  // shrinks. Throws std::bad_alloc.
  void reserve(std::size_t floats);

  // The area; its contents do not survive from one layer to the next.
  float* scratch() const { return area_.get(); }
  std::size_t size() const { return size_; }

  kernels::Workers& workers() { return workers_; }

 private:
  std::shared_ptr<float> area_;
  std::size_t size_ = 0;
  kernels::Workers workers_;
};

}  // namespace ravu
