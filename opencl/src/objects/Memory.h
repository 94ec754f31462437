// A buffer and the layout under which it is seen. Several memories may share one buffer.
#pragma once

#include <mutex>

#include "cldnn/cldnn.h"
#include "objects/Counted.h"
#include "objects/Engine.h"

struct cldnn_memory_impl final : ravu::opencl::Counted {
  // Zeroed. Refuses data types and formats that do not exist, and padding; a size of 0 is out of
  // resources.
  cldnn_memory_impl(ravu::opencl::Engine* engine, const cldnn_layout& wanted);
  // The same buffer under another layout.
  cldnn_memory_impl(ravu::opencl::Engine* engine, const cldnn_layout& wanted,
                    ravu::opencl::Slot shared);
  ~cldnn_memory_impl() override;

  // Locks nest: the first maps the buffer, the last unmaps it.
  void* lock();
  void unlock();
  bool is_locked();

  ravu::opencl::Ref<ravu::opencl::Engine> engine;
  cldnn_layout layout;
  ravu::opencl::Slot buffer;

 private:
  std::mutex mutex_;
  int locks_ = 0;
  void* address_ = nullptr;
};

namespace ravu::opencl {
using Memory = ::cldnn_memory_impl;
}
