// With stored statistics: (value - mean) / sqrt(variance + epsilon), both per feature.

__kernel void batch_norm(__global const float* in, __global const float* mean,
                         __global const float* variance, __global float* out, float epsilon,
                         int4 sizes, int4 steps) {
  Run run;
  if (!find_run(sizes, steps, &run)) return;
  in += run.at;
  out += run.at;
  mean += run.operand;
  variance += run.operand;
  if (run.whole) {
    const lanes spread = sqrt(load_operand(variance, steps.x) + epsilon);
    STORE((LOAD(in) - load_operand(mean, steps.x)) / spread, out);
  } else {
    for (int i = 0; i < run.length; ++i) {
      out[i] = (in[i] - mean[i * steps.x]) / sqrt(variance[i * steps.x] + epsilon);
    }
  }
}

// With the statistics of the values at hand. One work item per feature: the feature's values are
// `outer` groups of `run` neighbours, `step` apart.
__kernel void batch_norm_own(__global const float* in, __global float* out, float epsilon,
                             int features, int run, int outer, int step) {
  const int feature = get_global_id(0);
  if (feature >= features) return;
  in += feature * run;
  out += feature * run;
  const float count = (float)run * (float)outer;
  float sum = 0;
  for (int o = 0; o < outer; ++o) {
    for (int i = 0; i < run; ++i) sum += in[o * step + i];
  }
  const float mean = sum / count;
  float squares = 0;
  for (int o = 0; o < outer; ++o) {
    for (int i = 0; i < run; ++i) {
      const float difference = in[o * step + i] - mean;
      squares += difference * difference;
    }
  }
  const float spread = sqrt(squares / count + epsilon);
  for (int o = 0; o < outer; ++o) {
    for (int i = 0; i < run; ++i) out[o * step + i] = (in[o * step + i] - mean) / spread;
  }
}
