// Stands in front of every kernel file. LANES, a compile option, is the number of neighbouring
// values that one work item handles: a vector register on processors. MULTIPLY_ADD, another one, is
// fma where the device has it in hardware, else mad: fma would be a long routine there.

// Rounding is the same on all devices but where MULTIPLY_ADD asks for less.
#pragma OPENCL FP_CONTRACT OFF

#define JOIN_TEXT(a, b) a##b
#define JOIN(a, b) JOIN_TEXT(a, b)
typedef JOIN(float, LANES) lanes;
#define LOAD(address) JOIN(vload, LANES)(0, address)
#define STORE(value, address) JOIN(vstore, LANES)(value, 0, address)

// For single values and for lanes; not-a-numbers pass through.
#define RECTIFY(value, slope) ((value) > 0 ? (value) : (value) * (slope))

// A walk goes over a whole output and an operand beside it. Sizes are the output's, fastest first;
// steps are the operand's distances along the same dimensions, 0 where it is repeated. A work item
// gets a run of up to LANES values; false: none is left for it.
typedef struct {
  int at;       // in the output
  int operand;  // beside it
  int length;
  bool whole;  // LANES values, and the operand's are neighbours or all the same
} Run;

bool find_run(int4 sizes, int4 steps, Run* run) {
  const int first = get_global_id(0) * LANES;
  const int row = get_global_id(1);
  const int rest = get_global_id(2);
  if (first >= sizes.x || row >= sizes.y || rest >= sizes.z * sizes.w) return false;
  const int slice = rest % sizes.z;
  const int cube = rest / sizes.z;
  run->at = (rest * sizes.y + row) * sizes.x + first;
  run->operand = first * steps.x + row * steps.y + slice * steps.z + cube * steps.w;
  run->length = min(LANES, sizes.x - first);
  run->whole = run->length == LANES && (steps.x == 0 || steps.x == 1);
  return true;
}

lanes load_operand(__global const float* operand, int step) {
  return step == 1 ? LOAD(operand) : (lanes)(operand[0]);
}
