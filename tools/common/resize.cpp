// The filter is separable: rows are scaled first, then columns, each by a table that says which
// source pixels one output pixel is made of.
#include "common/resize.h"

#include <algorithm>
#include <cmath>

namespace ravu::tools {
namespace {

constexpr std::size_t kChannels = 3;

// One output pixel: weights[i] of source pixel first + i; they sum to 1.
struct Taps {
  std::size_t first = 0;
  std::vector<float> weights;
};

std::vector<Taps> make_taps(std::uint32_t from, std::uint32_t to) {
  const double scale = static_cast<double>(from) / to;
  const double reach = std::max(scale, 1.0);
  std::vector<Taps> all(to);
  for (std::uint32_t i = 0; i < to; ++i) {
    const double centre = (i + 0.5) * scale;
    const auto first = static_cast<std::size_t>(std::max(0.0, std::floor(centre - reach)));
    const auto end =
        std::min<std::size_t>(from, static_cast<std::size_t>(std::ceil(centre + reach)));
    std::vector<double> weights;
    double sum = 0;
    for (std::size_t s = first; s < end; ++s) {
      const double distance = std::abs(static_cast<double>(s) + 0.5 - centre);
      weights.push_back(std::max(0.0, 1 - distance / reach));
      sum += weights.back();
    }
    all[i].first = first;
    for (const double weight : weights) {
      all[i].weights.push_back(static_cast<float>(weight / sum));
    }
  }
  return all;
}

// One row of the region, scaled horizontally.
void scale_row(const std::uint8_t* row, const std::vector<Taps>& columns, float* to) {
  for (const Taps& taps : columns) {
    float sums[kChannels] = {};
    const std::uint8_t* pixel = row + taps.first * kChannels;
    for (const float weight : taps.weights) {
      for (std::size_t c = 0; c < kChannels; ++c) sums[c] += weight * static_cast<float>(pixel[c]);
      pixel += kChannels;
    }
    to = std::copy_n(sums, kChannels, to);
  }
}

// The largest centred region with the proportions width : height.
Region centred_part(const Picture& picture, std::uint32_t width, std::uint32_t height) {
  const auto part = [](std::uint64_t side, std::uint64_t numerator, std::uint64_t denominator) {
    return std::max<std::uint64_t>(1, (side * numerator + denominator / 2) / denominator);
  };
  const auto smaller = [](std::uint32_t side, std::uint64_t limit) {
    return static_cast<std::uint32_t>(std::min<std::uint64_t>(side, limit));
  };
  const std::uint32_t w = smaller(picture.width, part(picture.height, width, height));
  const std::uint32_t h = smaller(picture.height, part(picture.width, height, width));
  return {(picture.width - w) / 2, (picture.height - h) / 2, w, h};
}

// The part of a frame that a letterboxed picture fills.
Region letterbox_part(const Picture& picture, std::uint32_t width, std::uint32_t height) {
  const double scale = std::min(static_cast<double>(width) / picture.width,
                                static_cast<double>(height) / picture.height);
  const auto side = [&](std::uint32_t from, std::uint32_t limit) {
    const auto scaled = static_cast<std::uint32_t>(std::lround(from * scale));
    return std::clamp<std::uint32_t>(scaled, 1, limit);
  };
  const std::uint32_t w = side(picture.width, width);
  const std::uint32_t h = side(picture.height, height);
  return {(width - w) / 2, (height - h) / 2, w, h};
}

std::vector<float> letterbox(const Picture& picture, std::uint32_t width, std::uint32_t height,
                             float fill) {
  const Region part = letterbox_part(picture, width, height);
  const auto inner = resize(picture, whole(picture), part.width, part.height);
  std::vector<float> result(std::size_t{width} * height * kChannels, fill);
  const std::size_t line = part.width * kChannels;
  for (std::size_t y = 0; y < part.height; ++y) {
    std::copy_n(inner.data() + y * line, line,
                result.data() + ((part.y + y) * width + part.x) * kChannels);
  }
  return result;
}

}  // namespace

Region whole(const Picture& picture) {
  return {0, 0, picture.width, picture.height};
}

std::vector<float> resize(const Picture& picture, const Region& region, std::uint32_t width,
                          std::uint32_t height) {
  const auto columns = make_taps(region.width, width);
  const auto rows = make_taps(region.height, height);
  const std::size_t line = std::size_t{width} * kChannels;
  std::vector<float> scaled(line * region.height);
  for (std::size_t y = 0; y < region.height; ++y) {
    const std::size_t start = ((region.y + y) * picture.width + region.x) * kChannels;
    scale_row(picture.rgb.data() + start, columns, scaled.data() + y * line);
  }
  std::vector<float> result(line * height, 0.0F);
  for (std::size_t y = 0; y < height; ++y) {
    float* to = result.data() + y * line;
    const float* from = scaled.data() + rows[y].first * line;
    for (const float weight : rows[y].weights) {
      for (std::size_t i = 0; i < line; ++i) to[i] += weight * from[i];
      from += line;
    }
  }
  return result;
}

std::vector<float> frame(const Picture& picture, std::uint32_t width, std::uint32_t height,
                         Framing framing, float fill) {
  switch (framing) {
    case Framing::kCrop:
      return resize(picture, centred_part(picture, width, height), width, height);
    case Framing::kLetterbox:
      return letterbox(picture, width, height, fill);
    case Framing::kSquash:
      break;
  }
  return resize(picture, whole(picture), width, height);
}

Area frame_area(const Picture& picture, std::uint32_t width, std::uint32_t height,
                Framing framing) {
  if (framing == Framing::kLetterbox) {
    const Region part = letterbox_part(picture, width, height);
    const double x_scale = static_cast<double>(picture.width) / part.width;
    const double y_scale = static_cast<double>(picture.height) / part.height;
    return {-x_scale * part.x, -y_scale * part.y, x_scale * width, y_scale * height};
  }
  const Region part =
      framing == Framing::kCrop ? centred_part(picture, width, height) : whole(picture);
  return {static_cast<double>(part.x), static_cast<double>(part.y), static_cast<double>(part.width),
          static_cast<double>(part.height)};
}

Picture to_picture(const std::vector<float>& rgb, std::uint32_t width, std::uint32_t height) {
  Picture picture{width, height, std::vector<std::uint8_t>(rgb.size())};
  std::transform(rgb.begin(), rgb.end(), picture.rgb.begin(), [](float value) {
    return static_cast<std::uint8_t>(std::lround(std::clamp(value, 0.0F, 255.0F)));
  });
  return picture;
}

}  // namespace ravu::tools
