// Naive layers, written from the definitions alone, for comparing kernels with. They call no engine
// code, not even for shapes.
#pragma once

#include <cstddef>
#include <vector>

namespace ravu::test::reference {

struct Pooling {
  int batch, height, width, channels, kernel, stride, pad_h, pad_w;
};
int pooled_size(int input, int kernel, int stride, int pad);
std::vector<float> pool(const Pooling& p, bool maximum, const std::vector<float>& input);

}  // namespace ravu::test::reference
