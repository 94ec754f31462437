// The event calls.
#include "objects/Event.h"
#include "api/guard.h"
#include "runtime/Queue.h"

using namespace ravu::opencl;

void cldnn_wait_for_event(cldnn_event event, cldnn_status* status) {
  guarded(status, [&] {
    const Event& waited_for = checked(event, "event");
    if (waited_for.event != nullptr) wait(waited_for.event.get());
  });
}

void cldnn_retain_event(cldnn_event event, cldnn_status* status) {
  guarded(status, [&] { checked(event, "event").retain(); });
}

void cldnn_release_event(cldnn_event event, cldnn_status* status) {
  guarded(status, [&] { checked(event, "event").release(); });
}
