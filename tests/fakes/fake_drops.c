/* Libraries with the function names of clDNN's drops; FAKE_DROP says which. The functions do
 * nothing: they are there to be found. */
#define NAMED(name)  \
  void* name(void);  \
  void* name(void) { \
    return 0;        \
  }
#define KIND(name) NAMED(cldnn_##name##_type_id)

NAMED(cldnn_get_last_error_message)
NAMED(cldnn_create_engine)
NAMED(cldnn_release_engine)
NAMED(cldnn_create_topology)
NAMED(cldnn_add_primitive)
NAMED(cldnn_release_topology)
NAMED(cldnn_build_program)
NAMED(cldnn_release_program)
NAMED(cldnn_allocate_network)
NAMED(cldnn_release_network)
NAMED(cldnn_set_network_input)
NAMED(cldnn_execute_network)
NAMED(cldnn_get_network_output_names)
NAMED(cldnn_get_network_output)
NAMED(cldnn_wait_for_event)
NAMED(cldnn_release_event)
NAMED(cldnn_allocate_memory)
NAMED(cldnn_lock_memory)
NAMED(cldnn_unlock_memory)
NAMED(cldnn_get_memory_layout)
NAMED(cldnn_release_memory)
KIND(activation)
KIND(batch_norm)
KIND(concatenation)
KIND(convolution)
KIND(crop)
KIND(data)
KIND(detection_output)
KIND(eltwise)
KIND(fully_connected)
KIND(input_layout)
#ifndef FAKE_INCOMPLETE
KIND(lrn)
#endif
KIND(normalize)
KIND(permute)
KIND(pooling)
KIND(prior_box)
KIND(reorder)
KIND(reshape)
KIND(scale)
KIND(softmax)
#if FAKE_DROP >= 2
KIND(proposal)
#endif
#if FAKE_DROP >= 3
KIND(custom_gpu_primitive)
#endif
