// The index formulas are written out, one per format.
#include "support/Values.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <random>

namespace ravu::opencl::test {

float& Values::at(int b, int f, int y, int x) {
  return data[index_of(dims, CLDNN_FORMAT_BFYX, b, f, y, x)];
}

float Values::at(int b, int f, int y, int x) const {
  return data[index_of(dims, CLDNN_FORMAT_BFYX, b, f, y, x)];
}

Values zeros(Dims dims) {
  return {dims, std::vector<float>(static_cast<size_t>(dims.b) * dims.f * dims.y * dims.x)};
}

Values random_values(Dims dims, unsigned seed) {
  std::mt19937 generator(seed);
  std::uniform_real_distribution<float> distribution(-1, 1);
  Values values = zeros(dims);
  for (float& value : values.data) value = distribution(generator);
  return values;
}

Values listed(Dims dims, std::vector<float> data) {
  return {dims, std::move(data)};
}

Values along_x(std::vector<float> data) {
  const int count = static_cast<int>(data.size());
  return {{1, 1, 1, count}, std::move(data)};
}

size_t index_of(const Dims& d, int32_t format, int b, int f, int y, int x) {
  int index = 0;
  switch (format) {
    case CLDNN_FORMAT_YXFB:
      index = ((y * d.x + x) * d.f + f) * d.b + b;
      break;
    case CLDNN_FORMAT_BYXF:
      index = ((b * d.y + y) * d.x + x) * d.f + f;
      break;
    case CLDNN_FORMAT_BFYX:
      index = ((b * d.f + f) * d.y + y) * d.x + x;
      break;
    case CLDNN_FORMAT_FYXB:
      index = ((f * d.y + y) * d.x + x) * d.b + b;
      break;
    default:
      ADD_FAILURE() << "format " << format;
  }
  return static_cast<size_t>(index);
}

std::vector<float> to_memory(const Values& values, int32_t format) {
  const Dims& d = values.dims;
  std::vector<float> memory(values.data.size());
  for (int b = 0; b < d.b; ++b) {
    for (int f = 0; f < d.f; ++f) {
      for (int y = 0; y < d.y; ++y) {
        for (int x = 0; x < d.x; ++x) {
          memory[index_of(d, format, b, f, y, x)] = values.at(b, f, y, x);
        }
      }
    }
  }
  return memory;
}

Values from_memory(const Dims& dims, int32_t format, const std::vector<float>& memory) {
  Values values = zeros(dims);
  for (int b = 0; b < dims.b; ++b) {
    for (int f = 0; f < dims.f; ++f) {
      for (int y = 0; y < dims.y; ++y) {
        for (int x = 0; x < dims.x; ++x) {
          values.at(b, f, y, x) = memory[index_of(dims, format, b, f, y, x)];
        }
      }
    }
  }
  return values;
}

cldnn_tensor tensor(int b, int f, int x, int y) {
  cldnn_tensor made{1, 1, 2, {b, f, x, y, 1, 1, 1, 1}};
  return made;
}

cldnn_layout layout(const Dims& dims, int32_t format) {
  cldnn_layout made{};
  made.data_type = CLDNN_FLOAT32;
  made.format = format;
  made.size = tensor(dims.b, dims.f, dims.x, dims.y);
  return made;
}

void expect_near(const Values& got, const Values& expected, double tolerance) {
  ASSERT_EQ(got.dims.b, expected.dims.b);
  ASSERT_EQ(got.dims.f, expected.dims.f);
  ASSERT_EQ(got.dims.y, expected.dims.y);
  ASSERT_EQ(got.dims.x, expected.dims.x);
  double largest = 1e-3;
  for (float value : expected.data) largest = std::max<double>(largest, std::fabs(value));
  double worst = 0;
  size_t place = 0;
  for (size_t i = 0; i < expected.data.size(); ++i) {
    const double difference = std::fabs(double{got.data[i]} - double{expected.data[i]});
    if (!(difference <= worst)) {
      worst = difference;
      place = i;
    }
  }
  EXPECT_LE(worst, tolerance * largest)
      << "at " << place << ": got " << got.data[place] << ", expected " << expected.data[place];
}

}  // namespace ravu::opencl::test
