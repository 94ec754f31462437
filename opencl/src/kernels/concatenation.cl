// Seen in memory order, the output is a number of rows, each the inputs' rows behind one another.
// Up to eight inputs in one launch; a work item copies a piece of one input's row.

__kernel void concatenation(__global const float* in0, __global const float* in1,
                            __global const float* in2, __global const float* in3,
                            __global const float* in4, __global const float* in5,
                            __global const float* in6, __global const float* in7,
                            __global float* out, int8 lengths, int first_start, int out_length,
                            int rows, int piece) {
  const int row = get_global_id(1);
  if (row >= rows) return;
  const int input = get_global_id(2);
  __global const float* in = in0;
  int length = lengths.s0;
  int start = first_start;
#define FROM_INPUT(number, buffer, before, own) \
  if (input >= number) {                        \
    in = buffer;                                \
    start += before;                            \
    length = own;                               \
  }
  FROM_INPUT(1, in1, lengths.s0, lengths.s1)
  FROM_INPUT(2, in2, lengths.s1, lengths.s2)
  FROM_INPUT(3, in3, lengths.s2, lengths.s3)
  FROM_INPUT(4, in4, lengths.s3, lengths.s4)
  FROM_INPUT(5, in5, lengths.s4, lengths.s5)
  FROM_INPUT(6, in6, lengths.s5, lengths.s6)
  FROM_INPUT(7, in7, lengths.s6, lengths.s7)
  const int begin = get_global_id(0) * piece;
  const int end = min(begin + piece, length);
  in += row * length;
  out += row * out_length + start;
  for (int i = begin; i < end; ++i) out[i] = in[i];
}
