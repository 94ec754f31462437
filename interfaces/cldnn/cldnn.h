/* clDNN's C interface, drop 2 (June and July 2017): the part that the engine calls and that the
 * provider libravu_cldnn implements.
 *
 * Nothing links against these functions: the engine looks each one up by name in a library that is
 * loaded at run time and takes its type from the declaration, decltype(&cldnn_create_engine).
 *
 * Rules of every function
 *   - The last argument points to a status that is written on every call: CLDNN_SUCCESS, or the
 *     reason of the failure. It may be null. A function that fails returns null, 0 or all zeros.
 *   - cldnn_get_last_error_message gives the text of this thread's last failure.
 *   - No C++ exception comes out. Handles that are null are refused with CLDNN_ERROR.
 *   - Handles are counted by reference. What creates, builds, allocates or gets an object hands the
 *     caller one reference; the last release destroys.
 *   - Texts and lists are copied before a function returns.
 */
#ifndef RAVU_INTERFACES_CLDNN_H
#define RAVU_INTERFACES_CLDNN_H

#include "cldnn/descriptors.h"
#include "cldnn/types.h"

/* The provider defines CLDNN_BUILDING_PROVIDER when it is compiled, which exports the functions. */
#if !defined(CLDNN_BUILDING_PROVIDER)
#define CLDNN_API
#elif defined(_WIN32)
#define CLDNN_API __declspec(dllexport)
#else
#define CLDNN_API __attribute__((visibility("default")))
#endif

#ifdef __cplusplus
extern "C" {
#endif

/* The text of this thread's last failure; valid until its next one. */
CLDNN_API const char* cldnn_get_last_error_message(void);

/* Engine number 0 is the only one. A null configuration means all defaults. */
CLDNN_API cldnn_engine cldnn_create_engine(int32_t type, uint32_t number,
                                           const cldnn_engine_configuration* configuration,
                                           cldnn_status* status);
CLDNN_API void cldnn_retain_engine(cldnn_engine engine, cldnn_status* status);
CLDNN_API void cldnn_release_engine(cldnn_engine engine, cldnn_status* status);

CLDNN_API cldnn_topology cldnn_create_topology(cldnn_status* status);
/* Refuses an id that the topology has already. Inputs may be added later than their readers. */
CLDNN_API void cldnn_add_primitive(cldnn_topology topology, const cldnn_primitive* descriptor,
                                   cldnn_status* status);
CLDNN_API void cldnn_retain_topology(cldnn_topology topology, cldnn_status* status);
CLDNN_API void cldnn_release_topology(cldnn_topology topology, cldnn_status* status);

/* Resolves ids, computes shapes and chooses kernels. The options may be null when the count is 0.
 */
CLDNN_API cldnn_program cldnn_build_program(cldnn_engine engine, cldnn_topology topology,
                                            cldnn_build_option* options, size_t option_count,
                                            cldnn_status* status);
CLDNN_API void cldnn_retain_program(cldnn_program program, cldnn_status* status);
CLDNN_API void cldnn_release_program(cldnn_program program, cldnn_status* status);

/* Checks shapes, compiles the kernels, allocates the buffers, computes prior boxes. */
CLDNN_API cldnn_network cldnn_allocate_network(cldnn_program program, cldnn_status* status);
CLDNN_API void cldnn_retain_network(cldnn_network network, cldnn_status* status);
CLDNN_API void cldnn_release_network(cldnn_network network, cldnn_status* status);
/* The memory is read in place when it belongs to the network's engine, and stays set. */
CLDNN_API void cldnn_set_network_input(cldnn_network network, cldnn_id id, cldnn_memory memory,
                                       cldnn_status* status);
/* Returns when everything is queued. The dependencies may be null when the count is 0. */
CLDNN_API void cldnn_execute_network(cldnn_network network, cldnn_event* dependencies,
                                     size_t dependency_count, cldnn_status* status);
/* The names of all primitives that no other one reads, in no promised order: each with its zero
 * byte, then one more zero byte. A buffer that is too small is left alone, `needed` is set and the
 * status is CLDNN_INVALID_ARG. */
CLDNN_API void cldnn_get_network_output_names(cldnn_network network, char* names, size_t size,
                                              size_t* needed, cldnn_status* status);
/* Both members are the caller's to release. Wait for the event before reading the memory. */
CLDNN_API cldnn_network_output cldnn_get_network_output(cldnn_network network, const char* name,
                                                        cldnn_status* status);

CLDNN_API void cldnn_wait_for_event(cldnn_event event, cldnn_status* status);
CLDNN_API void cldnn_retain_event(cldnn_event event, cldnn_status* status);
CLDNN_API void cldnn_release_event(cldnn_event event, cldnn_status* status);

/* Zeroed memory. */
CLDNN_API cldnn_memory cldnn_allocate_memory(cldnn_engine engine, cldnn_layout layout,
                                             cldnn_status* status);
/* Waits for the executions before it. Locks nest; each one is undone by one unlock. */
CLDNN_API void* cldnn_lock_memory(cldnn_memory memory, cldnn_status* status);
CLDNN_API void cldnn_unlock_memory(cldnn_memory memory, cldnn_status* status);
CLDNN_API cldnn_layout cldnn_get_memory_layout(cldnn_memory memory, cldnn_status* status);
CLDNN_API void cldnn_retain_memory(cldnn_memory memory, cldnn_status* status);
CLDNN_API void cldnn_release_memory(cldnn_memory memory, cldnn_status* status);

/* The kinds of primitives. */
CLDNN_API cldnn_type_id cldnn_activation_type_id(cldnn_status* status);
CLDNN_API cldnn_type_id cldnn_batch_norm_type_id(cldnn_status* status);
CLDNN_API cldnn_type_id cldnn_concatenation_type_id(cldnn_status* status);
CLDNN_API cldnn_type_id cldnn_convolution_type_id(cldnn_status* status);
CLDNN_API cldnn_type_id cldnn_crop_type_id(cldnn_status* status);
CLDNN_API cldnn_type_id cldnn_data_type_id(cldnn_status* status);
CLDNN_API cldnn_type_id cldnn_detection_output_type_id(cldnn_status* status);
CLDNN_API cldnn_type_id cldnn_eltwise_type_id(cldnn_status* status);
CLDNN_API cldnn_type_id cldnn_fully_connected_type_id(cldnn_status* status);
CLDNN_API cldnn_type_id cldnn_input_layout_type_id(cldnn_status* status);
CLDNN_API cldnn_type_id cldnn_lrn_type_id(cldnn_status* status);
CLDNN_API cldnn_type_id cldnn_normalize_type_id(cldnn_status* status);
CLDNN_API cldnn_type_id cldnn_permute_type_id(cldnn_status* status);
CLDNN_API cldnn_type_id cldnn_pooling_type_id(cldnn_status* status);
CLDNN_API cldnn_type_id cldnn_prior_box_type_id(cldnn_status* status);
CLDNN_API cldnn_type_id cldnn_reorder_type_id(cldnn_status* status);
CLDNN_API cldnn_type_id cldnn_reshape_type_id(cldnn_status* status);
CLDNN_API cldnn_type_id cldnn_scale_type_id(cldnn_status* status);
CLDNN_API cldnn_type_id cldnn_softmax_type_id(cldnn_status* status);

/* Never called. Its presence tells drop 2 from drop 1; later drops export
 * cldnn_custom_gpu_primitive_type_id as well, which drop 2 lacks. */
CLDNN_API cldnn_type_id cldnn_proposal_type_id(cldnn_status* status);

#ifdef __cplusplus
} /* extern "C" */
#endif

#endif
