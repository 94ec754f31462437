/* Constants, handles and plain records of clDNN's C interface, drop 2, and how they lie in memory
 * on 64-bit platforms. */
#ifndef RAVU_INTERFACES_CLDNN_TYPES_H
#define RAVU_INTERFACES_CLDNN_TYPES_H

#include <assert.h>
#include <stddef.h>
#include <stdint.h>

/* Status codes. */
typedef int32_t cldnn_status;
enum {
  CLDNN_SUCCESS = 0,
  CLDNN_ERROR = -1,            /* nearly every failure */
  CLDNN_INVALID_ARG = -2,      /* a result buffer is too small */
  CLDNN_OUT_OF_RESOURCES = -3, /* a buffer could not be allocated, or has size 0 */
  CLDNN_DEVICE_ERROR = -4,     /* unknown engine type or engine number */
  CLDNN_UNSUPPORTED_SIZE = -5,
  CLDNN_UNSUPPORTED_FORMAT = -6,
  CLDNN_DIMENSION_MISMATCH = -7
};

enum { CLDNN_ENGINE_OPENCL = 0 };

/* Data types. The low bits are the element's bytes, 0x80 marks floating point. */
enum { CLDNN_INT8 = 1, CLDNN_FLOAT16 = 130, CLDNN_FLOAT32 = 132 };

/* Memory formats, named from the slowest dimension to the fastest. Weights use the same formats
 * with batch = output channels and feature = input channels. */
enum {
  CLDNN_FORMAT_ANY = -1,
  CLDNN_FORMAT_YXFB = 0, /* with batch 1 the same as byxf */
  CLDNN_FORMAT_BYXF = 1,
  CLDNN_FORMAT_BFYX = 2,
  CLDNN_FORMAT_FYXB = 3,
  CLDNN_FORMAT_COUNT = 8 /* 4 to 7 are private weight formats */
};

/* Types of build options. */
enum {
  CLDNN_OPTION_FUSING = 0,
  CLDNN_OPTION_PROFILING = 1,
  CLDNN_OPTION_OPTIMIZE_DATA = 2,
  CLDNN_OPTION_DEBUG = 3,
  CLDNN_OPTION_OUTPUTS = 4
};

enum {
  CLDNN_ELTWISE_SUM = 0,
  CLDNN_ELTWISE_SUB = 1,
  CLDNN_ELTWISE_MAX = 2,
  CLDNN_ELTWISE_PROD = 3
};

enum { CLDNN_POOLING_MAX = 0, CLDNN_POOLING_AVERAGE = 1 };

/* Which values a softmax normalises together. */
enum {
  CLDNN_SOFTMAX_F = 1,   /* the features of one pixel */
  CLDNN_SOFTMAX_X = 2,   /* one row */
  CLDNN_SOFTMAX_Y = 3,   /* one column */
  CLDNN_SOFTMAX_YX = 4,  /* one plane */
  CLDNN_SOFTMAX_FYX = 5, /* one image */
  CLDNN_SOFTMAX_BFYX = 6 /* everything */
};

enum {
  CLDNN_CONCATENATION_B = 0,
  CLDNN_CONCATENATION_F = 1,
  CLDNN_CONCATENATION_X = 2,
  CLDNN_CONCATENATION_Y = 3
};

enum { CLDNN_LRN_ACROSS_CHANNELS = 0, CLDNN_LRN_WITHIN_CHANNEL = 1 };

enum { CLDNN_BOX_CORNER = 0, CLDNN_BOX_CENTER_SIZE = 1, CLDNN_BOX_CORNER_SIZE = 2 };

/* Objects. */
typedef struct cldnn_engine_impl* cldnn_engine;
typedef struct cldnn_topology_impl* cldnn_topology;
typedef struct cldnn_program_impl* cldnn_program;
typedef struct cldnn_network_impl* cldnn_network;
typedef struct cldnn_memory_impl* cldnn_memory;
typedef struct cldnn_event_impl* cldnn_event;

/* The kind of a primitive: one fixed value per kind for the life of the process. */
typedef const struct cldnn_primitive_kind* cldnn_type_id;

/* The name of a primitive: zero-terminated text, unique in its topology. */
typedef const char* cldnn_id;

/* Indices of cldnn_tensor.sizes. x is the faster one of the two spatial dimensions. */
enum { CLDNN_BATCH = 0, CLDNN_FEATURE = 1, CLDNN_X = 2, CLDNN_Y = 3, CLDNN_TENSOR_SIZES = 8 };

/* Four sizes and four unused entries. Those are 1 where the tensor is a size (the element count is
 * the product of all eight), 0 where it is a padding, and not read in strides, offsets, dilations
 * and windows. The three counts are 1, 1 and 2; they are not read on input. */
typedef struct cldnn_tensor {
  size_t batch_count;
  size_t feature_count;
  size_t spatial_count;
  int32_t sizes[CLDNN_TENSOR_SIZES];
} cldnn_tensor;

/* Elements around a buffer. The engine pads nothing: all zeros. */
typedef struct cldnn_padding {
  cldnn_tensor lower;
  cldnn_tensor upper;
  float filling_value;
} cldnn_padding;

/* The shape of a memory. Two layouts are equal when every field is, unused sizes included. */
typedef struct cldnn_layout {
  size_t data_type;
  int32_t format;
  cldnn_tensor size;
  cldnn_padding padding;
} cldnn_layout;

/* Texts must not be null; empty means nothing special. */
typedef struct cldnn_engine_configuration {
  uint32_t enable_profiling;
  uint32_t meaningful_kernel_names;
  const char* compiler_options;
  const char* single_kernel_name;
} cldnn_engine_configuration;

typedef struct cldnn_build_option {
  int32_t type;
  const void* data; /* the flag itself, or a cldnn_id_list for CLDNN_OPTION_OUTPUTS */
} cldnn_build_option;

typedef struct cldnn_network_output {
  cldnn_event event;
  cldnn_memory memory;
} cldnn_network_output;

typedef struct cldnn_float_list {
  const float* data;
  size_t size;
} cldnn_float_list;

typedef struct cldnn_uint16_list {
  const uint16_t* data;
  size_t size;
} cldnn_uint16_list;

typedef struct cldnn_id_list {
  const cldnn_id* data;
  size_t size;
} cldnn_id_list;

#define CLDNN_AT(type, member, offset) \
  static_assert(offsetof(type, member) == (offset), #type "." #member)
#define CLDNN_SIZE(type, size) static_assert(sizeof(type) == (size), "size of " #type)

CLDNN_SIZE(void*, 8);
CLDNN_SIZE(size_t, 8);

CLDNN_SIZE(cldnn_tensor, 56);
CLDNN_AT(cldnn_tensor, batch_count, 0);
CLDNN_AT(cldnn_tensor, feature_count, 8);
CLDNN_AT(cldnn_tensor, spatial_count, 16);
CLDNN_AT(cldnn_tensor, sizes, 24);

CLDNN_SIZE(cldnn_padding, 120);
CLDNN_AT(cldnn_padding, lower, 0);
CLDNN_AT(cldnn_padding, upper, 56);
CLDNN_AT(cldnn_padding, filling_value, 112);

CLDNN_SIZE(cldnn_layout, 192);
CLDNN_AT(cldnn_layout, data_type, 0);
CLDNN_AT(cldnn_layout, format, 8);
CLDNN_AT(cldnn_layout, size, 16);
CLDNN_AT(cldnn_layout, padding, 72);

CLDNN_SIZE(cldnn_engine_configuration, 24);
CLDNN_AT(cldnn_engine_configuration, enable_profiling, 0);
CLDNN_AT(cldnn_engine_configuration, meaningful_kernel_names, 4);
CLDNN_AT(cldnn_engine_configuration, compiler_options, 8);
CLDNN_AT(cldnn_engine_configuration, single_kernel_name, 16);

CLDNN_SIZE(cldnn_build_option, 16);
CLDNN_AT(cldnn_build_option, type, 0);
CLDNN_AT(cldnn_build_option, data, 8);

CLDNN_SIZE(cldnn_network_output, 16);
CLDNN_AT(cldnn_network_output, event, 0);
CLDNN_AT(cldnn_network_output, memory, 8);

CLDNN_SIZE(cldnn_float_list, 16);
CLDNN_AT(cldnn_float_list, size, 8);
CLDNN_SIZE(cldnn_uint16_list, 16);
CLDNN_AT(cldnn_uint16_list, size, 8);
CLDNN_SIZE(cldnn_id_list, 16);
CLDNN_AT(cldnn_id_list, size, 8);

#undef CLDNN_AT
#undef CLDNN_SIZE

#endif
