// Rectification with one slope for everything, or with an operand of slopes beside the values.

__kernel void activation(__global const float* in, __global float* out, int count, float slope) {
  int i = get_global_id(0) * LANES;
  if (i + LANES <= count) {
    const lanes value = LOAD(in + i);
    STORE(RECTIFY(value, slope), out + i);
  } else {
    for (; i < count; ++i) out[i] = RECTIFY(in[i], slope);
  }
}

__kernel void activation_slopes(__global const float* in, __global const float* slopes,
                                __global float* out, int4 sizes, int4 steps) {
  Run run;
  if (!find_run(sizes, steps, &run)) return;
  in += run.at;
  out += run.at;
  slopes += run.operand;
  if (run.whole) {
    const lanes value = LOAD(in);
    STORE(RECTIFY(value, load_operand(slopes, steps.x)), out);
  } else {
    for (int i = 0; i < run.length; ++i) out[i] = RECTIFY(in[i], slopes[i * steps.x]);
  }
}
