// The end of something that was enqueued. Keeps nothing alive but its OpenCL event.
#pragma once

#include "cldnn/cldnn.h"
#include "objects/Counted.h"
#include "runtime/handles.h"

struct cldnn_event_impl final : ravu::opencl::Counted {
  // Null: something that is over already.
  explicit cldnn_event_impl(cl_event shared) : event(ravu::opencl::share(shared)) {}

  ravu::opencl::EventHandle event;
};

namespace ravu::opencl {
using Event = ::cldnn_event_impl;
}
