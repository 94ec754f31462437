// Reading images: every kind of PNG and JPEG, every shorter prefix, headers that lie.
#include "common/image_file.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <random>

#include "common/failure.h"
#include "support/encoders.h"

namespace ravu::test {
namespace {

using namespace tools;

// What decode_picture complains about; empty when it does not.
std::string complaint_about(const Bytes& file) {
  // A buffer of exactly this size, so that a sanitizer sees a step too far.
  const Bytes exact(file);
  try {
    decode_picture(exact);
  } catch (const Failure& failure) {
    return failure.what();
  }
  return {};
}

void expect_near(const Picture& got, const Picture& wanted, int tolerance) {
  ASSERT_EQ(got.width, wanted.width);
  ASSERT_EQ(got.height, wanted.height);
  for (std::size_t i = 0; i < got.rgb.size(); ++i) {
    ASSERT_NEAR(got.rgb[i], wanted.rgb[i], tolerance) << "at " << i;
  }
}

TEST(PngFile, RgbIsReadAsItIs) {
  const Picture picture = noise(13, 7, 1);
  EXPECT_EQ(decode_picture(encode_png(picture)).rgb, picture.rgb);
}

TEST(PngFile, InterlacedRowsComeTogether) {
  const Picture picture = noise(13, 7, 2);
  PngForm form{13, 7};
  form.interlaced = true;
  EXPECT_EQ(decode_picture(encode_png(form, picture.rgb)).rgb, picture.rgb);
}

TEST(PngFile, GreyBecomesRgb) {
  PngForm form{2, 1};
  form.colour_type = PNG_COLOR_TYPE_GRAY;
  EXPECT_EQ(decode_picture(encode_png(form, {7, 200})).rgb, (Bytes{7, 7, 7, 200, 200, 200}));
}

TEST(PngFile, OneBitGreyIsBlackAndWhite) {
  PngForm form{2, 1, 1};
  form.colour_type = PNG_COLOR_TYPE_GRAY;
  EXPECT_EQ(decode_picture(encode_png(form, {0x40})).rgb, (Bytes{0, 0, 0, 255, 255, 255}));
}

TEST(PngFile, SixteenBitsAreScaledToEight) {
  PngForm form{1, 1, 16};
  EXPECT_EQ(decode_picture(encode_png(form, {0xFF, 0xFF, 0x80, 0x80, 0x00, 0x00})).rgb,
            (Bytes{255, 128, 0}));
}

TEST(PngFile, PaletteAndItsTransparencyAreResolved) {
  PngForm form{3, 1};
  form.colour_type = PNG_COLOR_TYPE_PALETTE;
  form.palette = {{10, 20, 30}, {40, 50, 60}, {70, 80, 90}};
  form.palette_alpha = {255, 0};
  EXPECT_EQ(decode_picture(encode_png(form, {0, 1, 2})).rgb,
            (Bytes{10, 20, 30, 255, 255, 255, 70, 80, 90}));
}

TEST(PngFile, TransparencyIsLaidOnWhite) {
  PngForm form{3, 1};
  form.colour_type = PNG_COLOR_TYPE_RGB_ALPHA;
  const Bytes pixels{100, 0, 0, 255, 100, 0, 0, 0, 100, 0, 0, 51};
  EXPECT_EQ(decode_picture(encode_png(form, pixels)).rgb,
            (Bytes{100, 0, 0, 255, 255, 255, 224, 204, 204}));
}

TEST(PngFile, GreyWithAlphaIsLaidOnWhiteToo) {
  PngForm form{1, 1};
  form.colour_type = PNG_COLOR_TYPE_GRAY_ALPHA;
  EXPECT_EQ(decode_picture(encode_png(form, {0, 102})).rgb, (Bytes{153, 153, 153}));
}

TEST(JpegFile, RgbComesCloseToWhatWasWritten) {
  const Picture picture = solid(20, 10, 200, 100, 50);
  expect_near(decode_picture(encode_jpeg(picture)), picture, 4);
}

TEST(JpegFile, RowsAndColumnsKeepTheirPlaces) {
  Picture picture = solid(32, 16, 0, 0, 0);
  for (std::size_t y = 0; y < 16; ++y) {
    for (std::size_t x = 0; x < 32; ++x) {
      picture.rgb[(y * 32 + x) * 3] = static_cast<std::uint8_t>(8 * x);
      picture.rgb[(y * 32 + x) * 3 + 1] = static_cast<std::uint8_t>(16 * y);
    }
  }
  expect_near(decode_picture(encode_jpeg(picture)), picture, 16);
}

TEST(JpegFile, ProgressiveFilesGiveTheSamePicture) {
  const Picture picture = noise(24, 24, 3);
  EXPECT_EQ(decode_picture(encode_jpeg(picture, {.progressive = true})).rgb,
            decode_picture(encode_jpeg(picture)).rgb);
}

TEST(JpegFile, GreyBecomesRgb) {
  const Bytes grey(64, 120);
  const Picture got = decode_picture(encode_jpeg(8, 8, grey, {.components = 1}));
  expect_near(got, solid(8, 8, 120, 120, 120), 2);
}

TEST(JpegFile, InvertedInksOfEditorsAreConverted) {
  // Inverted: 255 is no ink. Full light, half of it in green, none in blue.
  Bytes inks;
  for (int i = 0; i < 64; ++i) inks.insert(inks.end(), {255, 128, 0, 255});
  expect_near(decode_picture(encode_jpeg(8, 8, inks, {.components = 4})), solid(8, 8, 255, 128, 0),
              4);
}

TEST(JpegFile, StrayBytesBetweenTheMarkersAreForgiven) {
  const Picture picture = solid(8, 8, 50, 60, 70);
  Bytes file = encode_jpeg(picture);
  const Bytes stray{1, 2, 3};
  file.insert(file.end() - 2, stray.begin(), stray.end());
  expect_near(decode_picture(file), picture, 4);
}

TEST(JpegFile, EndlessScansAreRefused) {
  Bytes file = encode_jpeg(noise(8, 8, 4), {.progressive = true});
  const Bytes scan_marker{0xFF, 0xDA};
  const auto last =
      std::find_end(file.begin(), file.end() - 2, scan_marker.begin(), scan_marker.end());
  const Bytes scan(last, file.end() - 2);
  file.erase(file.end() - 2, file.end());
  for (int i = 0; i < 600; ++i) file.insert(file.end(), scan.begin(), scan.end());
  file.insert(file.end(), {0xFF, 0xD9});
  EXPECT_EQ(complaint_about(file), "the JPEG file has too many scans");
}

TEST(ImageFile, EveryShorterPrefixOfEveryKindIsRefused) {
  const Picture picture = noise(9, 5, 5);
  PngForm interlaced{9, 5};
  interlaced.interlaced = true;
  const Bytes files[] = {encode_png(picture), encode_png(interlaced, picture.rgb),
                         encode_jpeg(picture), encode_jpeg(picture, {.progressive = true})};
  for (const Bytes& file : files) {
    EXPECT_EQ(complaint_about(file), "");
    for (std::size_t length = 0; length < file.size(); ++length) {
      const Bytes prefix(file.begin(), file.begin() + static_cast<std::ptrdiff_t>(length));
      EXPECT_NE(complaint_about(prefix), "") << length << " of " << file.size();
    }
  }
}

TEST(ImageFile, ChangedBytesNeverCrash) {
  std::mt19937 random(6);
  const Picture picture = noise(16, 12, 7);
  for (const Bytes& sound :
       {encode_png(picture), encode_jpeg(picture), encode_jpeg(picture, {.progressive = true})}) {
    for (int i = 0; i < 400; ++i) {
      Bytes file = sound;
      for (int changes = 0; changes < 3; ++changes) {
        file[random() % file.size()] = static_cast<std::uint8_t>(random());
      }
      complaint_about(file);
    }
  }
}

TEST(ImageFile, AHugePngHeaderIsRefusedBeforeAnythingIsAllocated) {
  PngForm form{100000, 1};
  form.colour_type = PNG_COLOR_TYPE_GRAY;
  EXPECT_EQ(complaint_about(encode_png(form, Bytes(100000))),
            "the picture is too large: 100000 x 1 pixels, at most 64 megapixels are read");
}

TEST(ImageFile, AHugeJpegHeaderIsRefusedBeforeAnythingIsAllocated) {
  Bytes file = encode_jpeg(solid(8, 8, 0, 0, 0));
  const Bytes frame_marker{0xFF, 0xC0};
  const auto frame =
      std::search(file.begin(), file.end(), frame_marker.begin(), frame_marker.end());
  // Marker, length, precision, then height and width in 16 bits each.
  const Bytes sizes{0xEA, 0x60, 0xFD, 0xE8};
  std::copy(sizes.begin(), sizes.end(), frame + 5);
  EXPECT_EQ(complaint_about(file),
            "the picture is too large: 65000 x 60000 pixels, at most 64 megapixels are read");
}

TEST(ImageFile, OtherContentIsNoImage) {
  EXPECT_EQ(complaint_about({'G', 'I', 'F', '8', '9', 'a'}), "not a JPEG or PNG image");
  EXPECT_EQ(complaint_about({}), "the file is empty");
}

TEST(ImageFile, TheContentDecidesAndNotTheName) {
  const Picture picture = noise(3, 3, 8);
  const TemporaryFile file(encode_png(picture));  // a name without ending
  EXPECT_EQ(read_picture(file.path()).rgb, picture.rgb);
}

TEST(ImageFile, AMissingFileIsNamedByTheSystem) {
  EXPECT_THROW(read_picture("/no/such/file"), Failure);
  EXPECT_THROW(read_picture("/"), Failure);
}

TEST(ImageFile, PicturesAreToldFromOtherFilesByTheirFirstBytes) {
  const Bytes jpeg = encode_jpeg(solid(2, 2, 0, 0, 0));
  const Bytes png = encode_png(solid(2, 2, 0, 0, 0));
  for (const Bytes& picture : {jpeg, png, Bytes(png.begin(), png.begin() + 8)}) {
    EXPECT_TRUE(is_picture_file(TemporaryFile(picture).path()));
  }
  for (const Bytes& other : {Bytes{}, Bytes(png.begin(), png.begin() + 7), Bytes{0xFF, 0xD8}}) {
    EXPECT_FALSE(is_picture_file(TemporaryFile(other).path()));
  }
  EXPECT_FALSE(is_picture_file("/no/file"));
}

TEST(WritePng, WhatIsWrittenReadsBack) {
  const Picture picture = noise(31, 17, 9);
  const TemporaryFile file({});
  write_png(file.path(), picture);
  EXPECT_EQ(read_picture(file.path()).rgb, picture.rgb);
}

TEST(WritePng, AFileThatCannotBeWrittenIsAFailure) {
  EXPECT_THROW(write_png("/no/such/folder/sheet.png", noise(2, 2, 1)), Failure);
  EXPECT_THROW(write_png("/dev/full", noise(2, 2, 1)), Failure);
}

}  // namespace
}  // namespace ravu::test
