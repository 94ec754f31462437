// The memory calls.
#include "objects/Memory.h"
#include "api/guard.h"

using namespace ravu::opencl;

cldnn_memory cldnn_allocate_memory(cldnn_engine engine, cldnn_layout layout, cldnn_status* status) {
  return guarded(status,
                 [&]() -> cldnn_memory { return new Memory(&checked(engine, "engine"), layout); });
}

void* cldnn_lock_memory(cldnn_memory memory, cldnn_status* status) {
  return guarded(status, [&] { return checked(memory, "memory").lock(); });
}

void cldnn_unlock_memory(cldnn_memory memory, cldnn_status* status) {
  guarded(status, [&] { checked(memory, "memory").unlock(); });
}

cldnn_layout cldnn_get_memory_layout(cldnn_memory memory, cldnn_status* status) {
  return guarded(status, [&] { return checked(memory, "memory").layout; });
}

void cldnn_retain_memory(cldnn_memory memory, cldnn_status* status) {
  guarded(status, [&] { checked(memory, "memory").retain(); });
}

void cldnn_release_memory(cldnn_memory memory, cldnn_status* status) {
  guarded(status, [&] { checked(memory, "memory").release(); });
}
