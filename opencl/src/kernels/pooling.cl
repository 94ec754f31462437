// Windows are shortened at the border. Tensors are planes of rows of pixels of neighbouring values
// ("depth"); a work item handles up to LANES of those.

// Runs BODY(x) for every element of the window, x its offset in the plane.
#define EACH_ELEMENT(BODY)                                                  \
  for (int y = top; y < bottom; ++y) {                                      \
    for (int x = left; x < right; ++x) { BODY(in + (y * columns + x) * depth) } \
  }

#define FIND_WINDOW                                                                          \
  const int rows = in_sizes.x;                                                               \
  const int columns = in_sizes.y;                                                            \
  const int depth = in_sizes.z;                                                              \
  const int first = get_global_id(0) * LANES;                                                \
  const int column = get_global_id(1);                                                       \
  const int row = get_global_id(2) % out_sizes.x;                                            \
  const int plane = get_global_id(2) / out_sizes.x;                                          \
  if (first >= depth || column >= out_sizes.y || plane >= in_sizes.w) return;                \
  const int y0 = row * stride.y + offset.y;                                                  \
  const int x0 = column * stride.x + offset.x;                                               \
  const int top = max(y0, 0);                                                                \
  const int bottom = min(y0 + window.y, rows);                                               \
  const int left = max(x0, 0);                                                               \
  const int right = min(x0 + window.x, columns);                                             \
  in += plane * rows * columns * depth + first;                                              \
  out += ((plane * out_sizes.x + row) * out_sizes.y + column) * depth + first;               \
  const int length = min(LANES, depth - first);

#define TAKE_MAX(address) largest = fmax(largest, LOAD(address));
#define TAKE_ONE_MAX(address) largest = fmax(largest, (address)[i]);
#define TAKE_SUM(address) sum += LOAD(address);
#define TAKE_ONE_SUM(address) sum += (address)[i];

// A window that lies wholly outside gives 0.
__kernel void pooling_max(__global const float* in, __global float* out, int4 in_sizes,
                          int2 out_sizes, int2 window, int2 stride, int2 offset) {
  FIND_WINDOW
  const bool empty = top >= bottom || left >= right;
  if (length == LANES) {
    lanes largest = empty ? 0 : -FLT_MAX;
    EACH_ELEMENT(TAKE_MAX)
    STORE(largest, out);
  } else {
    for (int i = 0; i < length; ++i) {
      float largest = empty ? 0 : -FLT_MAX;
      EACH_ELEMENT(TAKE_ONE_MAX)
      out[i] = largest;
    }
  }
}

// Divides by the full window wherever it lies.
__kernel void pooling_average(__global const float* in, __global float* out, int4 in_sizes,
                              int2 out_sizes, int2 window, int2 stride, int2 offset) {
  FIND_WINDOW
  const float area = (float)window.x * (float)window.y;
  if (length == LANES) {
    lanes sum = 0;
    EACH_ELEMENT(TAKE_SUM)
    STORE(sum / area, out);
  } else {
    for (int i = 0; i < length; ++i) {
      float sum = 0;
      EACH_ELEMENT(TAKE_ONE_SUM)
      out[i] = sum / area;
    }
  }
}
