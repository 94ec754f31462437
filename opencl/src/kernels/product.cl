// Convolution and fully connected: a matrix product of output pixels and units (output features)
// whose left side is read straight from the input, tap by tap; nothing is gathered beforehand.
// Weights come in panels of PANEL units, [part][panel][tap][input feature][unit]; with the factors
// of folded primitives in them. A tap outside the input reads from `zeros` instead.
//
// image:  x size, y size, then the distances of neighbours along x, y, feature, image
//         the input features of one part (s6); s7: the taps of a row of the window are neighbours
// window: x size, y size, strides x y, offsets x y, dilations x y
// result: x size, y size, images, units of one part, distances of units, columns, rows, images
// Each result is rectified with its unit's slope; `addend`, shaped like the output, comes before.

#define PANEL (2 * LANES)

// Runs DO(i) for every pixel of a register tile: as many as leave registers for two weight vectors
// and a value.
#if LANES == 16
#define PIXELS 12
#define EACH_PIXEL(DO) DO(0) DO(1) DO(2) DO(3) DO(4) DO(5) DO(6) DO(7) DO(8) DO(9) DO(10) DO(11)
#else
#define PIXELS 6
#define EACH_PIXEL(DO) DO(0) DO(1) DO(2) DO(3) DO(4) DO(5)
#endif

void put_results(lanes low, lanes high, __global const float* slopes, __global const float* addend,
                 int has_addend, __global float* out, int at, int step, int units) {
  if (units >= PANEL && step == 1) {
    if (has_addend) {
      low += LOAD(addend + at);
      high += LOAD(addend + at + LANES);
    }
    STORE(RECTIFY(low, LOAD(slopes)), out + at);
    STORE(RECTIFY(high, LOAD(slopes + LANES)), out + at + LANES);
    return;
  }
  float values[PANEL];
  JOIN(vstore, LANES)(low, 0, values);
  JOIN(vstore, LANES)(high, 1, values);
  for (int i = 0; i < min(units, PANEL); ++i) {
    const int place = at + i * step;
    const float value = has_addend ? values[i] + addend[place] : values[i];
    out[place] = RECTIFY(value, slopes[i]);
  }
}

// A work item computes PIXELS x PANEL results in registers, for `panels_each` panels one after
// another: as many as stay in a core's cache while all its neighbours read them too. Biases and
// slopes are padded to whole panels per part.
__kernel void product_registers(__global const float* in, __global const float* weights,
                                __global const float* biases, __global const float* slopes,
                                __global const float* addend, __global const float* zeros,
                                __global float* out, int8 image, int8 window, int8 result,
                                int panels, int has_addend, int panels_each) {
  const int pixels = result.s0 * result.s1 * result.s2;
  const int first = get_global_id(0) * PIXELS;
  const int part = get_global_id(2);
  if (first >= pixels) return;
  const int features = image.s6;
  const int step = image.s4;
  in += part * features * step;

  // Where the pixels' windows start. Behind the last pixel it is computed again, and not stored.
  int item = first % result.s2;
  int column = first / result.s2 % result.s0;
  int row = first / result.s2 / result.s0;
  bool whole_rows = image.s7;
#define PLACE_PIXEL(i)                                                                    \
  const int x##i = column * window.s2 + window.s4;                                        \
  const int y##i = row * window.s3 + window.s5;                                           \
  const int from##i = y##i * image.s3 + x##i * image.s2 + item * image.s5;                \
  const int to##i = row * result.s6 + column * result.s5 + item * result.s7;              \
  whole_rows = whole_rows && x##i >= 0 && x##i + window.s0 <= image.s0;                   \
  if (first + i + 1 < pixels) ++item;                                                     \
  if (item == result.s2) {                                                                \
    item = 0;                                                                             \
    ++column;                                                                             \
  }                                                                                       \
  if (column == result.s0) {                                                              \
    column = 0;                                                                           \
    ++row;                                                                                \
  }
  EACH_PIXEL(PLACE_PIXEL)

  // Where all windows lie inside sideways, a row of taps is one run of neighbouring values.
  const int taps = whole_rows ? window.s0 : 1;
  const int run = taps * features;
  const int first_panel = get_global_id(1) * panels_each;
  const int last_panel = min(first_panel + panels_each, panels);
  for (int panel = first_panel; panel < last_panel; ++panel) {
    const int place = part * panels + panel;
    __global const float* weight = weights + place * window.s0 * window.s1 * features * PANEL;
#define START_SUMS(i)                              \
  lanes low##i = LOAD(biases + place * PANEL);     \
  lanes high##i = LOAD(biases + place * PANEL + LANES);
    EACH_PIXEL(START_SUMS)
    for (int ky = 0; ky < window.s1; ++ky) {
      const int dy = ky * window.s7;
      for (int kx = 0; kx < window.s0; kx += taps) {
        const int dx = kx * window.s6;
        const int shift = dy * image.s3 + dx * image.s2;
#define FIND_TAP(i)                                                                       \
  const bool inside##i =                                                                  \
      (uint)(x##i + dx) < (uint)image.s0 && (uint)(y##i + dy) < (uint)image.s1;           \
  __global const float* values##i = inside##i ? in + (from##i + shift) : zeros;
        EACH_PIXEL(FIND_TAP)
        for (int f = 0; f < run; ++f) {
          const lanes low = LOAD(weight);
          const lanes high = LOAD(weight + LANES);
          weight += PANEL;
#define TAKE_TERM(i)                              \
  {                                               \
    const lanes value = values##i[f * step];      \
    low##i = MULTIPLY_ADD(value, low, low##i);    \
    high##i = MULTIPLY_ADD(value, high, high##i); \
  }
          EACH_PIXEL(TAKE_TERM)
        }
      }
    }
    const int units = result.s3 - panel * PANEL;
    const int shift = (part * result.s3 + panel * PANEL) * result.s4;
#define PUT_PIXEL(i)                                                                           \
  if (first + i < pixels) {                                                                    \
    put_results(low##i, high##i, slopes + place * PANEL, addend, has_addend, out, to##i + shift, \
                result.s4, units);                                                             \
  }
    EACH_PIXEL(PUT_PIXEL)
  }
}
