// Runs once, when a network is allocated: brings weights, biases and slopes into the order in which
// the products read them, and folds what follows a product per output ("unit") into them.

__kernel void fill(__global float* out, int count, float value) {
  const int i = get_global_id(0);
  if (i < count) out[i] = value;
}

__kernel void copy_part(__global const float* in, __global float* out, int start, int count) {
  const int i = get_global_id(0);
  if (i < count) out[start + i] = in[i];
}

// Each value `times` times, for depths in which the images of a batch are neighbours.
__kernel void repeat(__global const float* in, __global float* out, int count, int times) {
  const int i = get_global_id(0);
  if (i < count) out[i] = in[i / times];
}

// Parts of `units` values each at every `width`-th place.
__kernel void spread(__global const float* in, __global float* out, int count, int units,
                     int width) {
  const int i = get_global_id(0);
  if (i < count) out[i / units * width + i % units] = in[i];
}

// Products give factor * sum + bias; a normalisation and a scale of that are the same again.
__kernel void fold_batch_norm(__global float* factors, __global float* biases,
                              __global const float* mean, __global const float* variance,
                              float epsilon, int count) {
  const int i = get_global_id(0);
  if (i >= count) return;
  const float spread = sqrt(variance[i] + epsilon);
  factors[i] /= spread;
  biases[i] = (biases[i] - mean[i]) / spread;
}

__kernel void fold_scale(__global float* factors, __global float* biases,
                         __global const float* scales, __global const float* offsets,
                         int has_offsets, int step, int count) {
  const int i = get_global_id(0);
  if (i >= count) return;
  factors[i] *= scales[i * step];
  biases[i] *= scales[i * step];
  if (has_offsets) biases[i] += offsets[i * step];
}

// One part's weights as panels of `width` units: [panel][term][unit], zeros behind the last unit.
// The terms of a unit are counted in three digits, the last one fastest; steps says how far apart
// they stand in the source, steps.w how far apart the units.
__kernel void pack_panels(__global const float* in, __global float* out,
                          __global const float* factors, int4 digits, int4 steps, int units,
                          int first_unit, int width, int start) {
  const int lane = get_global_id(0);
  const int term = get_global_id(1);
  const int panel = get_global_id(2);
  const int terms = digits.x * digits.y * digits.z;
  if (lane >= width || term >= terms) return;
  const int unit = panel * width + lane;
  float weight = 0;
  if (unit < units) {
    const int place = term / (digits.y * digits.z) * steps.x +
                      term / digits.z % digits.y * steps.y + term % digits.z * steps.z;
    weight = in[place + unit * steps.w] * factors[first_unit + unit];
  }
  out[start + (panel * terms + term) * width + lane] = weight;
}

// One depthwise part's taps, [row][column], into [row][column][feature][image].
__kernel void pack_depthwise(__global const float* in, __global float* out,
                             __global const float* factors, int columns, int taps, int4 steps,
                             int feature, int features, int images) {
  const int image = get_global_id(0);
  const int tap = get_global_id(1);
  if (image >= images || tap >= taps) return;
  const float weight = in[tap / columns * steps.x + tap % columns * steps.y] * factors[feature];
  out[(tap * features + feature) * images + image] = weight;
}
