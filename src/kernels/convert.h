// The one way from floating point to integers.
#pragma once

#include <cstdint>
#include <limits>

namespace ravu::kernels {

// The value without its fraction; 0x80000000 when it is out of range or not a number.
inline std::int32_t to_int32(double value) {
  if (value > -2147483649.0 && value < 2147483648.0) return static_cast<std::int32_t>(value);
  return std::numeric_limits<std::int32_t>::min();
}

}  // namespace ravu::kernels
