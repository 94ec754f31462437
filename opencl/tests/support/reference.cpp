// Loops over output elements, as plain as they come.
#include "support/reference.h"

#include <algorithm>
#include <cfloat>
#include <cmath>
#include <functional>

namespace ravu::opencl::test {

namespace {

using Element = std::function<double(int b, int f, int y, int x)>;

Values each(const Dims& dims, const Element& element) {
  Values out = zeros(dims);
  for (int b = 0; b < dims.b; ++b) {
    for (int f = 0; f < dims.f; ++f) {
      for (int y = 0; y < dims.y; ++y) {
        for (int x = 0; x < dims.x; ++x) {
          out.at(b, f, y, x) = static_cast<float>(element(b, f, y, x));
        }
      }
    }
  }
  return out;
}

bool inside(const Dims& dims, int y, int x) {
  return y >= 0 && y < dims.y && x >= 0 && x < dims.x;
}

template <typename List>
auto one_or_each(const List& list, int index) {
  return list.size() == 1 ? list[0] : list[static_cast<size_t>(index)];
}

}  // namespace

Values convolution(const Values& in, const std::vector<Values>& weights,
                   const std::vector<float>& biases, const ConvolutionCase& s) {
  const auto out_size = [](int size, int pad, int kernel, int stride, int dilation) {
    return std::max(size + 2 * pad - (dilation * (kernel - 1) + 1), 0) / stride + 1;
  };
  const Dims out = {s.in.b, s.outputs,
                    out_size(s.in.y, s.pad_y, s.kernel_y, s.stride_y, s.dilation_y),
                    out_size(s.in.x, s.pad_x, s.kernel_x, s.stride_x, s.dilation_x)};
  const int part_outputs = s.outputs / s.split;
  const int part_inputs = s.in.f / s.split;
  return each(out, [&](int b, int o, int y, int x) {
    const int part = o / part_outputs;
    double sum = biases.empty() ? 0 : biases[static_cast<size_t>(o)];
    for (int f = 0; f < part_inputs; ++f) {
      for (int ky = 0; ky < s.kernel_y; ++ky) {
        for (int kx = 0; kx < s.kernel_x; ++kx) {
          const int iy = y * s.stride_y - s.pad_y + ky * s.dilation_y;
          const int ix = x * s.stride_x - s.pad_x + kx * s.dilation_x;
          if (!inside(s.in, iy, ix)) continue;
          sum += double{in.at(b, part * part_inputs + f, iy, ix)} *
                 weights[static_cast<size_t>(part)].at(o % part_outputs, f, ky, kx);
        }
      }
    }
    return sum;
  });
}

Values fully_connected(const Values& in, const Values& weights, const std::vector<float>& biases) {
  return each({in.dims.b, 1, 1, weights.dims.b}, [&](int b, int, int, int o) {
    double sum = biases.empty() ? 0 : biases[static_cast<size_t>(o)];
    for (int f = 0; f < in.dims.f; ++f) {
      for (int y = 0; y < in.dims.y; ++y) {
        for (int x = 0; x < in.dims.x; ++x) {
          sum += double{in.at(b, f, y, x)} * weights.at(o, f, y, x);
        }
      }
    }
    return sum;
  });
}

Values rectify(const Values& in, const std::vector<float>& slopes) {
  return each(in.dims, [&](int b, int f, int y, int x) {
    const double value = in.at(b, f, y, x);
    return std::max(value, 0.0) + one_or_each(slopes, f) * std::min(value, 0.0);
  });
}

Values batch_norm(const Values& in, const std::vector<float>& mean,
                  const std::vector<float>& variance, float epsilon) {
  return each(in.dims, [&](int b, int f, int y, int x) {
    const auto feature = static_cast<size_t>(f);
    return (in.at(b, f, y, x) - double{mean[feature]}) /
           std::sqrt(double{variance[feature]} + epsilon);
  });
}

Values scale(const Values& in, const Values& scales, const Values* biases) {
  const auto pick = [](const Values& from, int b, int f, int y, int x) {
    const Dims& d = from.dims;
    return double{from.at(d.b == 1 ? 0 : b, d.f == 1 ? 0 : f, d.y == 1 ? 0 : y, d.x == 1 ? 0 : x)};
  };
  return each(in.dims, [&](int b, int f, int y, int x) {
    return in.at(b, f, y, x) * pick(scales, b, f, y, x) +
           (biases == nullptr ? 0 : pick(*biases, b, f, y, x));
  });
}

Values eltwise(const Values& a, const Values& b, int mode) {
  Values out = a;
  for (size_t i = 0; i < out.data.size(); ++i) {
    const float left = a.data[i];
    const float right = b.data[i];
    out.data[i] = mode == 1   ? left - right
                  : mode == 2 ? std::max(left, right)
                  : mode == 3 ? left * right
                              : left + right;
  }
  return out;
}

Values pooling(const Values& in, int mode, const PoolingCase& s) {
  const auto out_size = [](int size, int pad, int window, int stride) {
    return (std::max(size + 2 * pad - window, 0) + stride - 1) / stride + 1;
  };
  const Dims out = {s.in.b, s.in.f, out_size(s.in.y, s.pad_y, s.window_y, s.stride_y),
                    out_size(s.in.x, s.pad_x, s.window_x, s.stride_x)};
  return each(out, [&](int b, int f, int y, int x) {
    double largest = -FLT_MAX;
    double sum = 0;
    bool any = false;
    for (int ky = 0; ky < s.window_y; ++ky) {
      for (int kx = 0; kx < s.window_x; ++kx) {
        const int iy = y * s.stride_y - s.pad_y + ky;
        const int ix = x * s.stride_x - s.pad_x + kx;
        if (!inside(s.in, iy, ix)) continue;
        any = true;
        largest = std::max<double>(largest, in.at(b, f, iy, ix));
        sum += in.at(b, f, iy, ix);
      }
    }
    if (!any) return 0.0;
    return mode == 0 ? largest : sum / (s.window_x * s.window_y);
  });
}

Values lrn_across(const Values& in, int size, float k, float alpha, float beta) {
  return each(in.dims, [&](int b, int f, int y, int x) {
    double sum = 0;
    for (int i = f - size / 2; i < f - size / 2 + size; ++i) {
      if (i >= 0 && i < in.dims.f) sum += std::pow(double{in.at(b, i, y, x)}, 2);
    }
    return in.at(b, f, y, x) * std::pow(k + double{alpha} / size * sum, -double{beta});
  });
}

Values lrn_within(const Values& in, int size, float k, float alpha, float beta) {
  return each(in.dims, [&](int b, int f, int y, int x) {
    double sum = 0;
    for (int iy = y - size / 2; iy < y - size / 2 + size; ++iy) {
      for (int ix = x - size / 2; ix < x - size / 2 + size; ++ix) {
        if (inside(in.dims, iy, ix)) sum += std::pow(double{in.at(b, f, iy, ix)}, 2);
      }
    }
    return in.at(b, f, y, x) * std::pow(k + double{alpha} / (size * size) * sum, -double{beta});
  });
}

Values normalize(const Values& in, const std::vector<float>& scales, bool across_spatial,
                 float epsilon) {
  return each(in.dims, [&](int b, int f, int y, int x) {
    double sum = epsilon;
    for (int i = 0; i < in.dims.f; ++i) {
      for (int iy = 0; iy < in.dims.y; ++iy) {
        for (int ix = 0; ix < in.dims.x; ++ix) {
          if (across_spatial || (iy == y && ix == x)) {
            sum += std::pow(double{in.at(b, i, iy, ix)}, 2);
          }
        }
      }
    }
    return in.at(b, f, y, x) / std::sqrt(sum) * one_or_each(scales, f);
  });
}

Values softmax(const Values& in, bool over_b, bool over_f, bool over_y, bool over_x) {
  return each(in.dims, [&](int b, int f, int y, int x) {
    double sum = 0;
    for (int ib = 0; ib < in.dims.b; ++ib) {
      for (int i = 0; i < in.dims.f; ++i) {
        for (int iy = 0; iy < in.dims.y; ++iy) {
          for (int ix = 0; ix < in.dims.x; ++ix) {
            const bool together = (over_b || ib == b) && (over_f || i == f) &&
                                  (over_y || iy == y) && (over_x || ix == x);
            if (together) sum += std::exp(double{in.at(ib, i, iy, ix)});
          }
        }
      }
    }
    return std::exp(double{in.at(b, f, y, x)}) / sum;
  });
}

Values concatenate(const std::vector<Values>& in, char axis) {
  Dims out = in[0].dims;
  int& along = axis == 'f' ? out.f : axis == 'y' ? out.y : out.x;
  along = 0;
  for (const Values& part : in) {
    along += axis == 'f' ? part.dims.f : axis == 'y' ? part.dims.y : part.dims.x;
  }
  return each(out, [&](int b, int f, int y, int x) {
    int& place = axis == 'f' ? f : axis == 'y' ? y : x;
    for (const Values& part : in) {
      const int size = axis == 'f' ? part.dims.f : axis == 'y' ? part.dims.y : part.dims.x;
      if (place < size) return double{part.at(b, f, y, x)};
      place -= size;
    }
    return 0.0;
  });
}

Values crop(const Values& in, const Dims& size, const Dims& offsets) {
  return each(size, [&](int b, int f, int y, int x) {
    return double{in.at(b + offsets.b, f + offsets.f, y + offsets.y, x + offsets.x)};
  });
}

}  // namespace ravu::opencl::test
