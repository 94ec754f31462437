// Layouts are normalised when a memory is made (counts 1, 1, 2), so comparing them is comparing
// fields.
#include "objects/Memory.h"

#include "primitives/Tensor.h"
#include "runtime/Error.h"

using namespace ravu::opencl;

namespace {

size_t checked_element_bytes(const cldnn_layout& layout) {
  if (layout.data_type != CLDNN_INT8 && layout.data_type != CLDNN_FLOAT16 &&
      layout.data_type != CLDNN_FLOAT32) {
    refuse("there is no data type " + std::to_string(layout.data_type));
  }
  if (layout.format < CLDNN_FORMAT_ANY || layout.format >= CLDNN_FORMAT_COUNT) {
    refuse("there is no format " + std::to_string(layout.format));
  }
  if (is_padded(layout.padding)) refuse("padded memory is not supported");
  return layout.data_type & 0x0f;
}

}  // namespace

cldnn_memory_impl::cldnn_memory_impl(Engine* of_engine, const cldnn_layout& wanted)
    : engine(Ref<Engine>::share(of_engine)), layout(normalised(wanted)) {
  const size_t bytes = checked_element_bytes(layout);
  buffer = engine->queue.allocate(element_count(layout.size), bytes);
}

cldnn_memory_impl::cldnn_memory_impl(Engine* of_engine, const cldnn_layout& wanted, Slot shared)
    : engine(Ref<Engine>::share(of_engine)),
      layout(normalised(wanted)),
      buffer(std::move(shared)) {}

cldnn_memory_impl::~cldnn_memory_impl() {
  try {
    if (locks_ > 0) engine->queue.unmap(buffer, address_);
  } catch (const Error&) {  // the buffer goes away all the same
  }
}

void* cldnn_memory_impl::lock() {
  const std::lock_guard guard(mutex_);
  if (locks_ == 0) address_ = engine->queue.map(buffer);
  ++locks_;
  return address_;
}

void cldnn_memory_impl::unlock() {
  const std::lock_guard guard(mutex_);
  if (locks_ == 0) refuse("the memory is not locked");
  if (locks_ == 1) engine->queue.unmap(buffer, address_);
  --locks_;
}

bool cldnn_memory_impl::is_locked() {
  const std::lock_guard guard(mutex_);
  return locks_ > 0;
}
