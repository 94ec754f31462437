// One work item per group of values that sum to 1. `groups` and `group_steps` say where the groups
// stand, `members` and `member_steps` where a group's values are; sizes fastest first.

#define EACH_MEMBER(BODY)                                                                   \
  for (int d = 0; d < members.w; ++d) {                                                     \
    for (int c = 0; c < members.z; ++c) {                                                   \
      for (int b = 0; b < members.y; ++b) {                                                 \
        const int row = d * member_steps.w + c * member_steps.z + b * member_steps.y;       \
        for (int a = 0; a < members.x; ++a) { BODY(row + a * member_steps.x) }              \
      }                                                                                     \
    }                                                                                       \
  }

#define TAKE_MAX(at) largest = fmax(largest, in[at]);
#define TAKE_EXP(at)                           \
  {                                            \
    const float power = exp(in[at] - largest); \
    out[at] = power;                           \
    sum += power;                              \
  }
#define DIVIDE(at) out[at] /= sum;

__kernel void softmax(__global const float* in, __global float* out, int4 groups, int4 group_steps,
                      int4 members, int4 member_steps) {
  const int first = get_global_id(0);
  const int second = get_global_id(1);
  const int rest = get_global_id(2);
  if (first >= groups.x || second >= groups.y || rest >= groups.z * groups.w) return;
  const int start = first * group_steps.x + second * group_steps.y +
                    rest % groups.z * group_steps.z + rest / groups.z * group_steps.w;
  in += start;
  out += start;
  float largest = -FLT_MAX;
  EACH_MEMBER(TAKE_MAX)
  float sum = 0;
  EACH_MEMBER(TAKE_EXP)
  EACH_MEMBER(DIVIDE)
}
