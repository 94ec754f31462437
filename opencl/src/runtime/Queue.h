// One device with its context, its in-order queue and its compiled kernels. Everything that reaches
// OpenCL while a network is made or runs goes through here.
#pragma once

#include <array>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <variant>
#include <vector>

#include "runtime/Device.h"
#include "runtime/KernelCache.h"
#include "runtime/handles.h"

namespace ravu::opencl {

// Device memory. A slot is a place that holds the buffer of the moment: kernel arguments name
// slots, so that a network's input can be exchanged between executions.
struct Buffer {
  MemHandle mem;
  size_t bytes = 0;
};
using Slot = std::shared_ptr<Buffer>;

using Argument = std::variant<const Slot*, cl_int, cl_float, cl_int2, cl_int4, cl_int8, cl_float2>;

// Where a kernel stands: src/kernels/FILE.cl and the function's name in it.
struct KernelName {
  const char* file;
  const char* function;
};

// A kernel with all its arguments, ready to be enqueued.
struct Launch {
  KernelHandle kernel;
  std::vector<Argument> arguments;
  std::array<size_t, 3> global{1, 1, 1};
  std::array<size_t, 3> local{1, 1, 1};
};

class Queue {
 public:
  explicit Queue(Device device);
  Queue(const Queue&) = delete;
  Queue& operator=(const Queue&) = delete;
  // Waits for what is enqueued.
  ~Queue();

  const Device& device() const { return device_; }
  // The floats that one work item handles at a time.
  int lanes() const;

  // Zeroed memory for that many elements of that many bytes. Kernels count in 32 bits: more
  // elements than that, none at all, or more than the device gives at once is out of resources.
  Slot allocate(int64_t count, size_t element_bytes);

  // Compiles the file at first use, or takes it from the cache.
  KernelHandle kernel(KernelName name);
  // The most work items that a work-group of the kernel can have.
  size_t largest_group(const KernelHandle& kernel) const;

  // Hands the launch's arguments to its kernel: before the first run, and after a slot has changed.
  void bind(const Launch& launch);
  // Enqueues; the event of the launch when one is wanted.
  void run(const Launch& launch, EventHandle* event = nullptr);

  // Blocking, after everything enqueued before.
  void read(const Slot& slot, void* data, size_t bytes);
  void write(const Slot& slot, const void* data, size_t bytes);
  void* map(const Slot& slot);
  void unmap(const Slot& slot, void* address);

  // Makes sure that the device starts on what is enqueued.
  void flush();
  // Waits for an event of another engine; one of this queue's own is ordered before what follows.
  void wait_unless_own(cl_event event);

 private:
  cl_program program(const std::string& file);
  ProgramHandle build(const std::string& source, const std::string& key);

  Device device_;
  ContextHandle context_;
  QueueHandle queue_;
  KernelCache cache_;
  std::mutex mutex_;  // of programs_
  std::map<std::string, ProgramHandle> programs_;
};

void wait(cl_event event);

}  // namespace ravu::opencl
