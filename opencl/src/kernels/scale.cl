// value * scale, with or without a bias shaped like the scale.

__kernel void scale(__global const float* in, __global const float* scales, __global float* out,
                    int4 sizes, int4 steps) {
  Run run;
  if (!find_run(sizes, steps, &run)) return;
  in += run.at;
  out += run.at;
  scales += run.operand;
  if (run.whole) {
    STORE(LOAD(in) * load_operand(scales, steps.x), out);
  } else {
    for (int i = 0; i < run.length; ++i) out[i] = in[i] * scales[i * steps.x];
  }
}

__kernel void scale_bias(__global const float* in, __global const float* scales,
                         __global const float* biases, __global float* out, int4 sizes,
                         int4 steps) {
  Run run;
  if (!find_run(sizes, steps, &run)) return;
  in += run.at;
  out += run.at;
  scales += run.operand;
  biases += run.operand;
  if (run.whole) {
    STORE(LOAD(in) * load_operand(scales, steps.x) + load_operand(biases, steps.x), out);
  } else {
    for (int i = 0; i < run.length; ++i) {
      out[i] = in[i] * scales[i * steps.x] + biases[i * steps.x];
    }
  }
}
