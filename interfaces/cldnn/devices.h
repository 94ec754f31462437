/* What the provider libravu_cldnn tells beyond clDNN's interface: the OpenCL devices that it sees.
 * clDNN itself has no such function, so callers look it up by name and do without. */
#ifndef RAVU_INTERFACES_CLDNN_DEVICES_H
#define RAVU_INTERFACES_CLDNN_DEVICES_H

#include "cldnn/cldnn.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Texts are never null; they and the record are valid during the call of the visitor. */
typedef struct {
  const char* name;
  const char* kind; /* "GPU", "accelerator", "processor" or "other" */
  const char* vendor;
  const char* version; /* "OpenCL 3.0 ..." */
  const char* driver;
  const char* platform;
  const char* refused; /* why it cannot compute; empty where it can */
  uint64_t memory;     /* bytes */
  uint32_t compute_units;
  int32_t chosen; /* not 0: an engine that is created now uses this one */
} ravu_cldnn_device;

typedef void (*ravu_cldnn_device_visitor)(void* context, const ravu_cldnn_device* device);

/* Calls the visitor once for each device of each platform, in OpenCL's order. A machine without
 * OpenCL has none. */
CLDNN_API void ravu_cldnn_list_devices(ravu_cldnn_device_visitor visitor, void* context,
                                       cldnn_status* status);

#ifdef __cplusplus
} /* extern "C" */
#endif

#endif
