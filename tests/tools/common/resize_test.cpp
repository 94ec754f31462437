// Resizing against a naive reference, and the three ways of filling a frame.
#include "common/resize.h"

#include <gtest/gtest.h>

#include <cmath>

#include "support/encoders.h"

namespace ravu::test {
namespace {

using namespace tools;

double value_at(const Picture& picture, std::uint32_t x, std::uint32_t y, std::size_t c) {
  return picture.rgb[(std::size_t{y} * picture.width + x) * 3 + c];
}

// The weight of source pixel `s` for output pixel `o`, before scaling to sum 1.
double triangle(std::uint32_t s, std::uint32_t o, double scale) {
  const double distance = std::abs((s + 0.5) - (o + 0.5) * scale);
  return std::max(0.0, 1.0 - distance / std::max(1.0, scale));
}

// Every output pixel as a weighted average over the whole region, in double precision.
std::vector<float> naive_resize(const Picture& picture, const Region& region, std::uint32_t width,
                                std::uint32_t height) {
  std::vector<float> result;
  for (std::uint32_t y = 0; y < height; ++y) {
    for (std::uint32_t x = 0; x < width; ++x) {
      double sums[3] = {};
      double weights = 0;
      for (std::uint32_t v = 0; v < region.height; ++v) {
        for (std::uint32_t u = 0; u < region.width; ++u) {
          const double weight = triangle(u, x, static_cast<double>(region.width) / width) *
                                triangle(v, y, static_cast<double>(region.height) / height);
          weights += weight;
          for (std::size_t c = 0; c < 3; ++c) {
            sums[c] += weight * value_at(picture, region.x + u, region.y + v, c);
          }
        }
      }
      for (const double sum : sums) result.push_back(static_cast<float>(sum / weights));
    }
  }
  return result;
}

TEST(Resize, AgreesWithANaiveWeightedAverage) {
  const std::uint32_t sizes[][4] = {{7, 5, 7, 5}, {9, 6, 3, 2},  {8, 8, 3, 5}, {3, 2, 11, 7},
                                    {1, 1, 4, 3}, {23, 1, 5, 1}, {2, 31, 9, 4}};
  for (const auto& size : sizes) {
    const Picture picture = noise(size[0], size[1], 11);
    const auto got = resize(picture, whole(picture), size[2], size[3]);
    const auto wanted = naive_resize(picture, whole(picture), size[2], size[3]);
    ASSERT_EQ(got.size(), wanted.size());
    for (std::size_t i = 0; i < got.size(); ++i) ASSERT_NEAR(got[i], wanted[i], 1e-3) << size[0];
  }
}

TEST(Resize, ReadsTheRegionOnly) {
  const Picture picture = noise(12, 10, 12);
  const Region region{3, 4, 5, 6};
  const auto got = resize(picture, region, 4, 3);
  const auto wanted = naive_resize(picture, region, 4, 3);
  for (std::size_t i = 0; i < got.size(); ++i) ASSERT_NEAR(got[i], wanted[i], 1e-3);
}

TEST(Resize, TheSameSizeChangesNothing) {
  const Picture picture = noise(6, 4, 13);
  const auto got = resize(picture, whole(picture), 6, 4);
  EXPECT_EQ(to_picture(got, 6, 4).rgb, picture.rgb);
}

TEST(Resize, ShrinkingStripesGivesGreyInsteadOfStripes) {
  Picture stripes{64, 1, {}};
  for (int x = 0; x < 64; ++x) stripes.rgb.insert(stripes.rgb.end(), 3, x % 2 == 0 ? 0 : 255);
  for (const float value : resize(stripes, whole(stripes), 8, 1)) EXPECT_NEAR(value, 127.5, 5);
}

TEST(Resize, EnlargingInterpolatesBetweenPixelCentres) {
  const Picture two{2, 1, {0, 0, 0, 100, 100, 100}};
  const auto got = resize(two, whole(two), 4, 1);
  EXPECT_NEAR(got[0], 0, 1e-4);
  EXPECT_NEAR(got[3], 25, 1e-4);
  EXPECT_NEAR(got[6], 75, 1e-4);
  EXPECT_NEAR(got[9], 100, 1e-4);
}

// Red, green, green, blue: 4 x 2.
Picture banded() {
  Picture picture{4, 2, {}};
  for (int y = 0; y < 2; ++y) {
    picture.rgb.insert(picture.rgb.end(), {255, 0, 0, 0, 255, 0, 0, 255, 0, 0, 0, 255});
  }
  return picture;
}

TEST(Frame, SquashKeepsTheWholePicture) {
  const auto got = frame(banded(), 4, 4, Framing::kSquash, 0);
  EXPECT_EQ(to_picture(got, 4, 4).rgb[0], 255);
  EXPECT_EQ(to_picture(got, 4, 4).rgb[3 * 3 + 2], 255);
}

TEST(Frame, CropTakesTheCentre) {
  const auto got = to_picture(frame(banded(), 2, 2, Framing::kCrop, 0), 2, 2);
  EXPECT_EQ(got.rgb, solid(2, 2, 0, 255, 0).rgb);
}

TEST(Frame, CropOfATallPictureTakesTheMiddleRows) {
  Picture tall{1, 3, {10, 10, 10, 20, 20, 20, 30, 30, 30}};
  EXPECT_EQ(to_picture(frame(tall, 1, 1, Framing::kCrop, 0), 1, 1).rgb,
            solid(1, 1, 20, 20, 20).rgb);
}

TEST(Frame, LetterboxFillsWhatTheProportionsLeaveFree) {
  const auto got = to_picture(frame(banded(), 4, 4, Framing::kLetterbox, 128), 4, 4);
  const Picture bars = solid(4, 1, 128, 128, 128);
  EXPECT_EQ(Bytes(got.rgb.begin(), got.rgb.begin() + 12), bars.rgb);
  EXPECT_EQ(Bytes(got.rgb.begin() + 12, got.rgb.begin() + 36), banded().rgb);
  EXPECT_EQ(Bytes(got.rgb.begin() + 36, got.rgb.end()), bars.rgb);
}

TEST(Frame, APictureOfExtremeProportionsKeepsAtLeastOnePixel) {
  const Picture line = solid(5000, 1, 9, 9, 9);
  const auto got = to_picture(frame(line, 3, 3, Framing::kLetterbox, 0), 3, 3);
  EXPECT_EQ(got.rgb[3 * 3], 9);
  EXPECT_EQ(frame(line, 3, 3, Framing::kCrop, 0).size(), 27U);
}

void expect_area(const Area& area, double x, double y, double width, double height) {
  EXPECT_DOUBLE_EQ(area.x, x);
  EXPECT_DOUBLE_EQ(area.y, y);
  EXPECT_DOUBLE_EQ(area.width, width);
  EXPECT_DOUBLE_EQ(area.height, height);
}

TEST(FrameArea, SquashCoversThePicture) {
  expect_area(frame_area(banded(), 8, 8, Framing::kSquash), 0, 0, 4, 2);
}

TEST(FrameArea, CropCoversItsCentre) {
  expect_area(frame_area(banded(), 8, 8, Framing::kCrop), 1, 0, 2, 2);
}

TEST(FrameArea, LetterboxBordersLieOutside) {
  expect_area(frame_area(banded(), 8, 8, Framing::kLetterbox), 0, -1, 4, 4);
  expect_area(frame_area(solid(2, 4, 0, 0, 0), 8, 8, Framing::kLetterbox), -1, 0, 4, 4);
}

TEST(FrameArea, LetterboxCountsTheBordersThatAreReallyThere) {
  // 3 of 8 rows are left free: one above, two below.
  expect_area(frame_area(solid(8, 5, 0, 0, 0), 8, 8, Framing::kLetterbox), 0, -1, 8, 8);
}

TEST(ToPicture, RoundsAndStaysBetween0And255) {
  EXPECT_EQ(to_picture({-3.0F, 0.5F, 300.0F}, 1, 1).rgb, (Bytes{0, 1, 255}));
}

}  // namespace
}  // namespace ravu::test
