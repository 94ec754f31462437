// value * (k + alpha / n * sum of squares) ^ -beta, n the elements of the whole window. `alpha`
// arrives divided already.

// The window lies across features; `run` values stand between neighbouring features.
__kernel void lrn_across(__global const float* in, __global float* out, int count, int features,
                         int run, int window, float k, float alpha, float beta) {
  const int first = get_global_id(0) * LANES;
  const int length = min(LANES, count - first);
  if (length <= 0) return;
  float sums[LANES];
  for (int i = 0; i < LANES; ++i) sums[i] = 0;
  for (int i = 0; i < length; ++i) {
    const int feature = (first + i) / run % features;
    const int begin = max(feature - window / 2, 0);
    const int end = min(feature - window / 2 + window, features);
    for (int f = begin; f < end; ++f) {
      const float value = in[first + i + (f - feature) * run];
      sums[i] += value * value;
    }
  }
  const lanes factors = powr(k + alpha * JOIN(vload, LANES)(0, sums), (lanes)(-beta));
  if (length == LANES) {
    STORE(LOAD(in + first) * factors, out + first);
  } else {
    float each[LANES];
    JOIN(vstore, LANES)(factors, 0, each);
    for (int i = 0; i < length; ++i) out[first + i] = in[first + i] * each[i];
  }
}

// The window lies in the plane of one feature.
__kernel void lrn_within(__global const float* in, __global float* out, int rows, int columns,
                         int depth, int planes, int window, float k, float alpha, float beta) {
  const int lane = get_global_id(0);
  const int column = get_global_id(1);
  const int row = get_global_id(2) % rows;
  const int plane = get_global_id(2) / rows;
  if (lane >= depth || column >= columns || plane >= planes) return;
  const int top = max(row - window / 2, 0);
  const int bottom = min(row - window / 2 + window, rows);
  const int left = max(column - window / 2, 0);
  const int right = min(column - window / 2 + window, columns);
  float sum = 0;
  for (int y = top; y < bottom; ++y) {
    for (int x = left; x < right; ++x) {
      const float value = in[((plane * rows + y) * columns + x) * depth + lane];
      sum += value * value;
    }
  }
  const int at = ((plane * rows + row) * columns + column) * depth + lane;
  out[at] = in[at] * powr(k + alpha * sum, -beta);
}
