// value / sqrt(sum of squares + epsilon) * scale, with one scale or one per feature (scale_step 1).

// The sum goes over the features of one pixel, `run` values apart.
__kernel void normalize_pixel(__global const float* in, __global const float* scales,
                              __global float* out, int features, int run, int pixels,
                              int scale_step, float epsilon) {
  const int lane = get_global_id(0);
  const int pixel = get_global_id(1);
  if (lane >= run || pixel >= pixels) return;
  in += pixel * features * run + lane;
  out += pixel * features * run + lane;
  float sum = epsilon;
  for (int f = 0; f < features; ++f) sum += in[f * run] * in[f * run];
  const float norm = sqrt(sum);
  for (int f = 0; f < features; ++f) out[f * run] = in[f * run] / norm * scales[f * scale_step];
}

#define HELPERS 64

// The sum goes over a whole image. One work-group per image; its values are `step` apart, images
// `image_step`, features change every `run` values of memory.
__kernel __attribute__((reqd_work_group_size(HELPERS, 1, 1))) void normalize_image(
    __global const float* in, __global const float* scales, __global float* out, int count,
    int step, int image_step, int features, int run, int scale_step, float epsilon) {
  __local float parts[HELPERS];
  const int helper = get_local_id(0);
  const int start = get_group_id(0) * image_step;
  float part = 0;
  for (int i = helper; i < count; i += HELPERS) {
    const float value = in[start + i * step];
    part += value * value;
  }
  parts[helper] = part;
  barrier(CLK_LOCAL_MEM_FENCE);
  float sum = epsilon;
  for (int i = 0; i < HELPERS; ++i) sum += parts[i];
  const float norm = sqrt(sum);
  for (int i = helper; i < count; i += HELPERS) {
    const int at = start + i * step;
    out[at] = in[at] / norm * scales[at / run % features * scale_step];
  }
}
