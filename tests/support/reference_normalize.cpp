// L2 normalisation, step by step as it is defined, roots of later images included.
#include <cmath>

#include "support/reference.h"

namespace ravu::test::reference {
namespace {

void scale_image(const Normalize& n, const std::vector<float>& scale, float* image, int floats) {
  if (n.channel_shared) {
    for (int i = 0; i < floats; ++i) image[i] *= scale[0];
    return;
  }
  for (int c = 0; c < n.channels; ++c) {
    for (int s = 0; s < n.pixels; ++s) image[c * n.pixels + s] *= scale[static_cast<unsigned>(c)];
  }
}

}  // namespace

std::vector<float> normalize(const Normalize& n, const std::vector<float>& input,
                             const std::vector<float>& scale, std::vector<float>& squares,
                             std::vector<float>& norms) {
  std::vector<float> output(input.size());
  const int floats = n.pixels * n.channels;
  for (std::size_t i = 0; i < input.size(); ++i) {
    squares[i] = static_cast<float>(std::pow(static_cast<double>(input[i]), 2.0));
  }
  for (int image = 0; image < n.images; ++image) {
    const float* x = input.data() + image * floats;
    const float* square = squares.data() + image * floats;
    float* norm = norms.data() + image * n.pixels;
    float* y = output.data() + image * floats;
    for (int s = 0; s < n.pixels; ++s) {
      for (int c = 0; c < n.channels; ++c) norm[s] += square[s * n.channels + c];
    }
    for (float* later = norm; later != norms.data() + norms.size(); ++later) *later = sqrtf(*later);
    for (int i = 0; i < floats; ++i) y[i] = x[i] / norm[i / n.channels];
    scale_image(n, scale, y, floats);
  }
  return output;
}

}  // namespace ravu::test::reference
