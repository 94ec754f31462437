// The boxes of one grid cell per work item, and behind all boxes their variances.

void put_box(__global float* box, float center_x, float center_y, float width, float height,
             float2 image, int clip) {
  float corners[4] = {(center_x - width / 2) / image.x, (center_y - height / 2) / image.y,
                      (center_x + width / 2) / image.x, (center_y + height / 2) / image.y};
  for (int i = 0; i < 4; ++i) {
    box[i] = clip ? clamp(corners[i], 0.0f, 1.0f) : corners[i];
  }
}

// counts: min sizes, max sizes, ratios, variances. per_cell boxes make up a cell.
__kernel void prior_box(__global const float* min_sizes, __global const float* max_sizes,
                        __global const float* ratios, __global const float* variances,
                        __global float* out, int4 counts, int2 grid, int per_cell, float2 image,
                        float2 step, float offset, int clip) {
  const int column = get_global_id(0);
  const int row = get_global_id(1);
  if (column >= grid.x || row >= grid.y) return;
  const float center_x = (column + offset) * step.x;
  const float center_y = (row + offset) * step.y;
  const int cell = (row * grid.x + column) * per_cell * 4;
  __global float* box = out + cell;
  for (int i = 0; i < counts.x; ++i) {
    const float size = min_sizes[i];
    put_box(box, center_x, center_y, size, size, image, clip);
    box += 4;
    if (counts.y > 0) {
      const float between = sqrt(size * max_sizes[i]);
      put_box(box, center_x, center_y, between, between, image, clip);
      box += 4;
    }
    for (int r = 0; r < counts.z; ++r) {
      if (fabs(ratios[r] - 1) < 1e-6f) continue;
      const float root = sqrt(ratios[r]);
      put_box(box, center_x, center_y, size * root, size / root, image, clip);
      box += 4;
    }
  }
  __global float* variance = out + grid.x * grid.y * per_cell * 4 + cell;
  for (int i = 0; i < per_cell * 4; ++i) variance[i] = variances[counts.w == 1 ? 0 : i % 4];
}
