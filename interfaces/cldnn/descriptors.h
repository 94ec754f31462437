/* The descriptors of primitives: what cldnn_add_primitive takes. Each one starts with a
 * cldnn_primitive; they are zeroed first and then filled. */
#ifndef RAVU_INTERFACES_CLDNN_DESCRIPTORS_H
#define RAVU_INTERFACES_CLDNN_DESCRIPTORS_H

#include "cldnn/types.h"

/* What every descriptor starts with. An id field that names an optional primitive is an empty text
 * for "none", never null. */
typedef struct cldnn_primitive {
  cldnn_type_id type;
  cldnn_id id;
  cldnn_id_list input;
  cldnn_padding output_padding;
} cldnn_primitive;

/* The network's input: its memory is set before each execution and has exactly this layout. */
typedef struct cldnn_input_layout_desc {
  cldnn_primitive header;
  cldnn_layout layout;
} cldnn_input_layout_desc;

/* A constant. The primitive keeps a reference to the memory. */
typedef struct cldnn_data_desc {
  cldnn_primitive header;
  cldnn_memory memory;
} cldnn_data_desc;

/* max(v, 0) + slope * min(v, 0). The slopes of slope_input, one per feature along x, replace the
 * number. */
typedef struct cldnn_activation_desc {
  cldnn_primitive header;
  float negative_slope;
  cldnn_id slope_input;
} cldnn_activation_desc;

/* (v - mean[f]) / sqrt(variance[f] + epsilon) where global statistics are used. */
typedef struct cldnn_batch_norm_desc {
  cldnn_primitive header;
  cldnn_id mean;
  cldnn_id variance;
  uint32_t use_global_statistics;
  float epsilon;
} cldnn_batch_norm_desc;

/* The inputs one after another along the axis. yxfb: features only; bfyx: f, x and y. */
typedef struct cldnn_concatenation_desc {
  cldnn_primitive header;
  int32_t axis;
} cldnn_concatenation_desc;

/* input_offset is the negative of the padding. `split` parts of the features are convolved apart,
 * each with its own weights of (outputs, input features of one part, kernel width, kernel height)
 * and its own bias with the outputs along x; the bias list is empty or as long as the weights'. */
typedef struct cldnn_convolution_desc {
  cldnn_primitive header;
  cldnn_tensor input_offset;
  cldnn_tensor stride;
  cldnn_tensor dilation;
  uint32_t with_activation;
  float activation_slope;
  uint32_t split;
  cldnn_id_list weights;
  cldnn_id_list bias;
} cldnn_convolution_desc;

/* The part of the input that starts at the offsets and has the reference's size. */
typedef struct cldnn_crop_desc {
  cldnn_primitive header;
  cldnn_tensor reference_size;
  cldnn_tensor offsets;
} cldnn_crop_desc;

/* Inputs: locations, confidences, prior boxes, all bfyx. Output: bfyx of y = keep_top_k rows per
 * image and x = 7 values: image, class, score, xmin, ymin, xmax, ymax; unused rows have image -1.
 */
typedef struct cldnn_detection_output_desc {
  cldnn_primitive header;
  uint32_t class_count;
  uint32_t keep_top_k;
  uint32_t share_location;
  int32_t background_label;
  float nms_threshold;
  int32_t top_k; /* negative: all */
  float eta;
  int32_t code_type;
  uint32_t variance_encoded_in_target;
  float confidence_threshold;
} cldnn_detection_output_desc;

/* Combines the header's one input with the second one; both have the same layout. */
typedef struct cldnn_eltwise_desc {
  cldnn_primitive header;
  cldnn_id second_input;
  int32_t mode;
  uint32_t with_activation;
  float activation_slope;
} cldnn_eltwise_desc;

/* Weights of O neurons: in yxfb one row of O values per input position, in bfyx one row of input
 * positions per neuron. The neurons of the output lie along x; its feature size is 1. */
typedef struct cldnn_fully_connected_desc {
  cldnn_primitive header;
  uint32_t with_activation;
  float activation_slope;
  cldnn_id weights;
  cldnn_id bias;
} cldnn_fully_connected_desc;

/* v * (k + alpha / n * sum of squares) ^ -beta, n the elements of the window. */
typedef struct cldnn_lrn_desc {
  cldnn_primitive header;
  uint32_t size;
  float k;
  float alpha;
  float beta;
  int32_t region;
} cldnn_lrn_desc;

/* v / sqrt(sum of squares + epsilon) * scale, the sum over the features of a pixel or, across
 * spatial, of a whole image. One scale, or one per feature along x. */
typedef struct cldnn_normalize_desc {
  cldnn_primitive header;
  cldnn_id scale_input;
  uint32_t across_spatial;
  float epsilon;
} cldnn_normalize_desc;

/* Four entries. The memory is taken as an array whose axes are the format's, slowest first; axis i
 * of the output is axis order[i] of the input. The declared sizes follow b, f, x, y instead. */
typedef struct cldnn_permute_desc {
  cldnn_primitive header;
  cldnn_uint16_list order;
} cldnn_permute_desc;

/* Windows that reach over the border are shortened there; an average still divides by the full
 * window. The output size is rounded up. */
typedef struct cldnn_pooling_desc {
  cldnn_primitive header;
  int32_t mode;
  cldnn_tensor input_offset;
  cldnn_tensor stride;
  cldnn_tensor size;
} cldnn_pooling_desc;

/* Boxes for every pixel of the input. Output: bfyx of two features: the corners, the variances. The
 * aspect ratios hold 1 exactly once and flipped ratios already; `flip` is not read. */
typedef struct cldnn_prior_box_desc {
  cldnn_primitive header;
  cldnn_tensor image_size;
  cldnn_float_list min_sizes;
  cldnn_float_list max_sizes;
  cldnn_float_list aspect_ratios;
  uint32_t flip;
  uint32_t clip;
  cldnn_float_list variances;
  float step_width;
  float step_height;
  float offset;
} cldnn_prior_box_desc;

/* The same values in another format and data type. */
typedef struct cldnn_reorder_desc {
  cldnn_primitive header;
  int32_t output_format;
  int32_t output_data_type;
  cldnn_id mean;
  cldnn_float_list subtract;
} cldnn_reorder_desc;

/* The same memory under another size. A size equal to the input's must not be asked for. */
typedef struct cldnn_reshape_desc {
  cldnn_primitive header;
  cldnn_tensor output_shape;
} cldnn_reshape_desc;

/* v * scale + bias. Each size of the scale is 1 or the input's; the bias is shaped like it. */
typedef struct cldnn_scale_desc {
  cldnn_primitive header;
  cldnn_id scale_input;
  cldnn_id bias;
} cldnn_scale_desc;

/* An input of one pixel gives an output with the features along x. */
typedef struct cldnn_softmax_desc {
  cldnn_primitive header;
  int32_t dimension;
} cldnn_softmax_desc;

#define CLDNN_AT(type, member, offset) \
  static_assert(offsetof(type, member) == (offset), #type "." #member)
#define CLDNN_SIZE(type, size) static_assert(sizeof(type) == (size), "size of " #type)

CLDNN_SIZE(cldnn_primitive, 152);
CLDNN_AT(cldnn_primitive, type, 0);
CLDNN_AT(cldnn_primitive, id, 8);
CLDNN_AT(cldnn_primitive, input.data, 16);
CLDNN_AT(cldnn_primitive, input.size, 24);
CLDNN_AT(cldnn_primitive, output_padding.lower, 32);
CLDNN_AT(cldnn_primitive, output_padding.upper, 88);
CLDNN_AT(cldnn_primitive, output_padding.filling_value, 144);

CLDNN_SIZE(cldnn_input_layout_desc, 344);
CLDNN_AT(cldnn_input_layout_desc, layout, 152);
CLDNN_SIZE(cldnn_data_desc, 160);
CLDNN_AT(cldnn_data_desc, memory, 152);

CLDNN_SIZE(cldnn_activation_desc, 168);
CLDNN_AT(cldnn_activation_desc, negative_slope, 152);
CLDNN_AT(cldnn_activation_desc, slope_input, 160);

CLDNN_SIZE(cldnn_batch_norm_desc, 176);
CLDNN_AT(cldnn_batch_norm_desc, mean, 152);
CLDNN_AT(cldnn_batch_norm_desc, variance, 160);
CLDNN_AT(cldnn_batch_norm_desc, use_global_statistics, 168);
CLDNN_AT(cldnn_batch_norm_desc, epsilon, 172);

CLDNN_SIZE(cldnn_concatenation_desc, 160);
CLDNN_AT(cldnn_concatenation_desc, axis, 152);

CLDNN_SIZE(cldnn_convolution_desc, 368);
CLDNN_AT(cldnn_convolution_desc, input_offset, 152);
CLDNN_AT(cldnn_convolution_desc, stride, 208);
CLDNN_AT(cldnn_convolution_desc, dilation, 264);
CLDNN_AT(cldnn_convolution_desc, with_activation, 320);
CLDNN_AT(cldnn_convolution_desc, activation_slope, 324);
CLDNN_AT(cldnn_convolution_desc, split, 328);
CLDNN_AT(cldnn_convolution_desc, weights, 336);
CLDNN_AT(cldnn_convolution_desc, bias, 352);

CLDNN_SIZE(cldnn_crop_desc, 264);
CLDNN_AT(cldnn_crop_desc, reference_size, 152);
CLDNN_AT(cldnn_crop_desc, offsets, 208);

CLDNN_SIZE(cldnn_detection_output_desc, 192);
CLDNN_AT(cldnn_detection_output_desc, class_count, 152);
CLDNN_AT(cldnn_detection_output_desc, keep_top_k, 156);
CLDNN_AT(cldnn_detection_output_desc, share_location, 160);
CLDNN_AT(cldnn_detection_output_desc, background_label, 164);
CLDNN_AT(cldnn_detection_output_desc, nms_threshold, 168);
CLDNN_AT(cldnn_detection_output_desc, top_k, 172);
CLDNN_AT(cldnn_detection_output_desc, eta, 176);
CLDNN_AT(cldnn_detection_output_desc, code_type, 180);
CLDNN_AT(cldnn_detection_output_desc, variance_encoded_in_target, 184);
CLDNN_AT(cldnn_detection_output_desc, confidence_threshold, 188);

CLDNN_SIZE(cldnn_eltwise_desc, 176);
CLDNN_AT(cldnn_eltwise_desc, second_input, 152);
CLDNN_AT(cldnn_eltwise_desc, mode, 160);
CLDNN_AT(cldnn_eltwise_desc, with_activation, 164);
CLDNN_AT(cldnn_eltwise_desc, activation_slope, 168);

CLDNN_SIZE(cldnn_fully_connected_desc, 176);
CLDNN_AT(cldnn_fully_connected_desc, with_activation, 152);
CLDNN_AT(cldnn_fully_connected_desc, activation_slope, 156);
CLDNN_AT(cldnn_fully_connected_desc, weights, 160);
CLDNN_AT(cldnn_fully_connected_desc, bias, 168);

CLDNN_SIZE(cldnn_lrn_desc, 176);
CLDNN_AT(cldnn_lrn_desc, size, 152);
CLDNN_AT(cldnn_lrn_desc, k, 156);
CLDNN_AT(cldnn_lrn_desc, alpha, 160);
CLDNN_AT(cldnn_lrn_desc, beta, 164);
CLDNN_AT(cldnn_lrn_desc, region, 168);

CLDNN_SIZE(cldnn_normalize_desc, 168);
CLDNN_AT(cldnn_normalize_desc, scale_input, 152);
CLDNN_AT(cldnn_normalize_desc, across_spatial, 160);
CLDNN_AT(cldnn_normalize_desc, epsilon, 164);

CLDNN_SIZE(cldnn_permute_desc, 168);
CLDNN_AT(cldnn_permute_desc, order, 152);

CLDNN_SIZE(cldnn_pooling_desc, 328);
CLDNN_AT(cldnn_pooling_desc, mode, 152);
CLDNN_AT(cldnn_pooling_desc, input_offset, 160);
CLDNN_AT(cldnn_pooling_desc, stride, 216);
CLDNN_AT(cldnn_pooling_desc, size, 272);

CLDNN_SIZE(cldnn_prior_box_desc, 296);
CLDNN_AT(cldnn_prior_box_desc, image_size, 152);
CLDNN_AT(cldnn_prior_box_desc, min_sizes, 208);
CLDNN_AT(cldnn_prior_box_desc, max_sizes, 224);
CLDNN_AT(cldnn_prior_box_desc, aspect_ratios, 240);
CLDNN_AT(cldnn_prior_box_desc, flip, 256);
CLDNN_AT(cldnn_prior_box_desc, clip, 260);
CLDNN_AT(cldnn_prior_box_desc, variances, 264);
CLDNN_AT(cldnn_prior_box_desc, step_width, 280);
CLDNN_AT(cldnn_prior_box_desc, step_height, 284);
CLDNN_AT(cldnn_prior_box_desc, offset, 288);

CLDNN_SIZE(cldnn_reorder_desc, 184);
CLDNN_AT(cldnn_reorder_desc, output_format, 152);
CLDNN_AT(cldnn_reorder_desc, output_data_type, 156);
CLDNN_AT(cldnn_reorder_desc, mean, 160);
CLDNN_AT(cldnn_reorder_desc, subtract, 168);

CLDNN_SIZE(cldnn_reshape_desc, 208);
CLDNN_AT(cldnn_reshape_desc, output_shape, 152);

CLDNN_SIZE(cldnn_scale_desc, 168);
CLDNN_AT(cldnn_scale_desc, scale_input, 152);
CLDNN_AT(cldnn_scale_desc, bias, 160);

CLDNN_SIZE(cldnn_softmax_desc, 160);
CLDNN_AT(cldnn_softmax_desc, dimension, 152);

#undef CLDNN_AT
#undef CLDNN_SIZE

#endif
