// Values taken from elsewhere in the input: what crop, permute and reorder have in common.

__kernel void copy(__global const float* in, __global float* out, int start, int4 sizes,
                   int4 steps) {
  Run run;
  if (!find_run(sizes, steps, &run)) return;
  in += start + run.operand;
  out += run.at;
  if (run.whole && steps.x == 1) {
    STORE(LOAD(in), out);
  } else {
    for (int i = 0; i < run.length; ++i) out[i] = in[i * steps.x];
  }
}
