// Test data independent of formats: values by (image, feature, row, column), brought into and out
// of the formats of the interface by the plain index formulas.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "cldnn/cldnn.h"

namespace ravu::opencl::test {

struct Dims {
  int b = 1;
  int f = 1;
  int y = 1;
  int x = 1;

  bool operator==(const Dims&) const = default;
};

struct Values {
  Dims dims;
  std::vector<float> data;  // b, f, y, x, the last one fastest

  float& at(int b, int f, int y, int x);
  float at(int b, int f, int y, int x) const;
};

Values zeros(Dims dims);
// Between -1 and 1, the same for the same seed.
Values random_values(Dims dims, unsigned seed);
Values listed(Dims dims, std::vector<float> data);
// One value per feature, along x.
Values along_x(std::vector<float> data);

size_t index_of(const Dims& dims, int32_t format, int b, int f, int y, int x);
std::vector<float> to_memory(const Values& values, int32_t format);
Values from_memory(const Dims& dims, int32_t format, const std::vector<float>& memory);

// Unused entries 1, as in sizes.
cldnn_tensor tensor(int b, int f, int x, int y);
cldnn_layout layout(const Dims& dims, int32_t format);

// Differences stay below `tolerance` times the largest expected value; dims and counts are equal.
void expect_near(const Values& got, const Values& expected, double tolerance = 1e-5);

}  // namespace ravu::opencl::test
