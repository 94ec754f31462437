// ravu detect, on a model whose boxes are the quarters of its image and whose scores are colours.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <nlohmann/json.hpp>

#include "common/annotation.h"
#include "common/image_file.h"
#include "support/encoders.h"
#include "support/program.h"
#include "support/temporary_folder.h"
#include "support/tool_models.h"

namespace ravu::test {
namespace {

using nlohmann::json;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::SizeIs;
namespace fs = std::filesystem;

void set_pixel(tools::Picture& picture, std::size_t x, std::size_t y, const Bytes& colour) {
  std::copy(colour.begin(), colour.end(),
            picture.rgb.begin() + static_cast<std::ptrdiff_t>((y * picture.width + x) * 3));
}

// Black but for these pixels.
tools::Picture dots(std::uint32_t width, std::uint32_t height,
                    const std::vector<std::tuple<std::size_t, std::size_t, Bytes>>& pixels) {
  tools::Picture picture = solid(width, height, 0, 0, 0);
  for (const auto& [x, y, colour] : pixels) set_pixel(picture, x, y, colour);
  return picture;
}

const Bytes kRedPixel{255, 0, 0};
const Bytes kBluePixel{0, 0, 204};

class ProgramDetect : public ::testing::Test {
 protected:
  // The objects in the first image.
  static json found(const std::vector<std::string>& arguments) {
    std::vector<std::string> all{"detect", "--json"};
    all.insert(all.end(), arguments.begin(), arguments.end());
    const Outcome outcome = run_ravu(all);
    EXPECT_EQ(outcome.code, 0) << outcome.err;
    return json::parse(outcome.out)[0]["detections"];
  }

  const TemporaryFolder folder;
  const std::string model = folder.put("model.ravu", quarter_detector().bytes());
  const std::string image =
      folder.put("image.png", encode_png(dots(2, 2, {{0, 0, kRedPixel}, {1, 1, kBluePixel}})));
  const std::string broken = folder.put("broken.jpg", {0xFF, 0xD8, 0xFF, 0});
};

TEST_F(ProgramDetect, PrintsPathLabelScoreAndBoxSeparatedByTabs) {
  const Outcome outcome = run_ravu({"detect", model, image});
  EXPECT_EQ(outcome.code, 0);
  EXPECT_EQ(outcome.err, "");
  EXPECT_EQ(lines_of(outcome.out),
            (std::vector<std::string>{image + "\tred\t1.000000\t0.0\t0.0\t1.0\t1.0",
                                      image + "\tblue\t0.800000\t1.0\t1.0\t2.0\t2.0"}));
}

TEST_F(ProgramDetect, JsonIsOneArrayWithOneObjectPerImage) {
  const std::string black = folder.put("black.png", encode_png(solid(3, 5, 0, 0, 0)));
  const json array = json::parse(run_ravu({"detect", model, image, black, "--json"}).out);
  ASSERT_EQ(array.size(), 2U);
  EXPECT_EQ(array[0]["image"], image);
  EXPECT_EQ(array[0]["width"], 2);
  EXPECT_EQ(array[0]["height"], 2);
  ASSERT_EQ(array[0]["detections"].size(), 2U);
  EXPECT_EQ(array[0]["detections"][1]["label"], "blue");
  EXPECT_EQ(array[0]["detections"][1]["index"], 3);
  EXPECT_NEAR(array[0]["detections"][1]["score"].get<double>(), 0.8, 1e-6);
  EXPECT_EQ(array[0]["detections"][1]["box"], json({1.0, 1.0, 2.0, 2.0}));
  EXPECT_EQ(array[1]["width"], 3);
  EXPECT_EQ(array[1]["height"], 5);
  EXPECT_TRUE(array[1]["detections"].empty());
}

TEST_F(ProgramDetect, ManyImagesGiveWhatEachGivesAlone) {
  const std::string other = folder.put("other.png", encode_png(solid(2, 2, 0, 255, 0)));
  const std::string both = run_ravu({"detect", model, image, other}).out;
  EXPECT_EQ(both, run_ravu({"detect", model, image}).out + run_ravu({"detect", model, other}).out);
}

TEST_F(ProgramDetect, TheThresholdIsTheLeastScore) {
  EXPECT_THAT(found({model, image, "--threshold", "0.79"}), SizeIs(2));
  EXPECT_THAT(found({model, image, "--threshold", "0.81"}), SizeIs(1));
  const std::string dark = folder.put("dark.png", encode_png(solid(2, 2, 10, 0, 0)));
  EXPECT_THAT(found({model, dark}), SizeIs(0));
  EXPECT_THAT(found({model, dark, "--threshold", "0"}), SizeIs(4));
}

TEST_F(ProgramDetect, BoxesArePixelsOfTheOriginalPicture) {
  tools::Picture picture = solid(8, 4, 0, 0, 0);
  for (std::size_t x = 4; x < 8; ++x) {
    for (const std::size_t y : {0, 1}) set_pixel(picture, x, y, {0, 255, 0});
  }
  const json objects = found({model, folder.put("wide.png", encode_png(picture))});
  ASSERT_EQ(objects.size(), 1U);
  EXPECT_EQ(objects[0]["label"], "green");
  EXPECT_EQ(objects[0]["box"], json({4.0, 0.0, 8.0, 2.0}));
}

TEST_F(ProgramDetect, ACropIsUndone) {
  const std::string wide =
      folder.put("wide.png", encode_png(dots(4, 2, {{2, 1, kRedPixel}, {0, 0, kRedPixel}})));
  const json objects = found({model, wide, "--fit", "crop"});
  ASSERT_EQ(objects.size(), 1U);
  EXPECT_EQ(objects[0]["box"], json({2.0, 1.0, 3.0, 2.0}));
}

TEST_F(ProgramDetect, ALetterboxIsUndoneAndItsBordersHoldNothing) {
  const std::string wide = folder.put("wide.png", encode_png(dots(2, 1, {{1, 0, kRedPixel}})));
  const json objects = found({model, wide, "--fit", "letterbox", "--threshold", "0.1"});
  // The lower half of the frame is grey: three colours in two quarters, outside the picture.
  ASSERT_EQ(objects.size(), 1U);
  EXPECT_EQ(objects[0]["box"], json({1.0, 0.0, 2.0, 1.0}));
  const std::string tall = folder.put("tall.png", encode_png(dots(1, 2, {{0, 1, kRedPixel}})));
  EXPECT_EQ(found({model, tall, "--fit", "letterbox"})[0]["box"], json({0.0, 1.0, 1.0, 2.0}));
}

TEST_F(ProgramDetect, TheModelsOwnCropIsUndone) {
  const std::string cropping = folder.put("cropping.ravu", quarter_detector(4).bytes());
  const std::string small =
      folder.put("small.png", encode_png(dots(4, 4, {{2, 1, kRedPixel}, {3, 3, kRedPixel}})));
  const json objects = found({cropping, small});
  ASSERT_EQ(objects.size(), 1U);
  EXPECT_EQ(objects[0]["box"], json({2.0, 1.0, 3.0, 2.0}));
}

TEST_F(ProgramDetect, BgrTurnsTheChannelsRound) {
  EXPECT_EQ(found({model, image, "--bgr"})[0]["label"], "blue");
}

TEST_F(ProgramDetect, WithoutNamesIndicesAreLabels) {
  const std::string nameless =
      folder.put("nameless.ravu", quarter_detector().remove("label_names").bytes());
  EXPECT_EQ(found({nameless, image})[0]["label"], "1");
}

TEST_F(ProgramDetect, ATabInALabelMakesNoField) {
  const Bytes names = texts({"nothing", "r\td", "g", "b"});
  const std::string odd =
      folder.put("odd.ravu", quarter_detector().set("label_names", names).bytes());
  EXPECT_THAT(run_ravu({"detect", odd, image}).out, HasSubstr("\tr?d\t"));
}

TEST_F(ProgramDetect, ABrokenImageIsOneLineAndTheOthersGoOn) {
  const Outcome outcome = run_ravu({"detect", model, broken, image, "--out", folder.file("out")});
  EXPECT_EQ(outcome.code, 1);
  EXPECT_THAT(lines_of(outcome.out), SizeIs(2));
  ASSERT_THAT(lines_of(outcome.err), SizeIs(1));
  EXPECT_THAT(outcome.err, HasSubstr("ravu: " + broken + ": "));
  EXPECT_FALSE(fs::exists(folder.file("out/broken.png")));
  EXPECT_TRUE(fs::exists(folder.file("out/image.png")));
}

TEST_F(ProgramDetect, JsonOfNoReadableImageIsAnEmptyArray) {
  const Outcome outcome = run_ravu({"detect", model, "/no/image", "--json"});
  EXPECT_EQ(outcome.code, 1);
  EXPECT_TRUE(json::parse(outcome.out).empty());
  EXPECT_EQ(outcome.err, "ravu: /no/image: No such file or directory\n");
}

void expect_refused(const Outcome& outcome, const std::string& line) {
  EXPECT_EQ(outcome.code, 1);
  EXPECT_THAT(outcome.out, IsEmpty());
  EXPECT_EQ(outcome.err, "ravu: " + line + '\n');
}

TEST_F(ProgramDetect, AClassifierIsRefused) {
  const std::string classifier = folder.put("classifier.ravu", colour_model().bytes());
  expect_refused(run_ravu({"detect", classifier, image, "--out", folder.file("out")}),
                 classifier + ": is no detector: its last layer is no detection output");
  EXPECT_FALSE(fs::exists(folder.file("out")));
}

TEST_F(ProgramDetect, ADetectorWithoutRowsIsRefused) {
  for (const int keep_top_k : {0, -1}) {
    const std::string none = folder.put("none.ravu", quarter_detector_of_rows(keep_top_k).bytes());
    expect_refused(run_ravu({"detect", none, image}),
                   none + ": the detection output has no rows: \"keep_top_k\" must be > 0");
  }
}

TEST_F(ProgramDetect, AModelThatTakesNoPicturesIsRefused) {
  const std::string five = folder.put(
      "five.ravu", ModelBuilder(2, 5).add_layer(layer("max", {"data"}, {"prob"})).bytes());
  expect_refused(run_ravu({"detect", five, image}),
                 five + ": wants images of 5 channels; only 1 and 3 can be fed from image files");
  const std::string empty =
      folder.put("empty.ravu", ModelBuilder(2, 3).set("layers", list({})).bytes());
  expect_refused(run_ravu({"detect", empty, image}), empty + ": the network has no output");
}

TEST_F(ProgramDetect, ARunModeThatCannotBeHadIsRefused) {
  const NoOpenClDevices none;
  EXPECT_THAT(run_ravu({"detect", model, image, "--mode", "2"}).err,
              HasSubstr("ravu: run mode 2: "));
}

TEST_F(ProgramDetect, CopiesHaveTheirPicturesSizeAndShowTheBoxes) {
  const std::string large = folder.put("large.jpg", encode_jpeg(solid(300, 200, 255, 0, 0)));
  const Outcome outcome = run_ravu({"detect", model, large, "--out", folder.file("new/out")});
  EXPECT_EQ(outcome.code, 0) << outcome.err;
  const tools::Picture copy = tools::read_picture(folder.file("new/out/large.png"));
  ASSERT_EQ(copy.width, 300U);
  ASSERT_EQ(copy.height, 200U);
  const auto pixel = [&](std::size_t x, std::size_t y) {
    const auto at = copy.rgb.begin() + static_cast<std::ptrdiff_t>((y * 300 + x) * 3);
    return Bytes(at, at + 3);
  };
  const tools::Colour colour = tools::class_colour(1);
  const Bytes border{colour.red, colour.green, colour.blue};
  EXPECT_EQ(pixel(150, 50), border);
  EXPECT_EQ(pixel(149, 50), border);
  EXPECT_EQ(pixel(299, 150), border);
  EXPECT_GT(pixel(75, 50)[0], 250);
  EXPECT_LT(pixel(75, 50)[1], 10);
}

TEST_F(ProgramDetect, APictureWithoutObjectsIsCopiedAsItIs) {
  const tools::Picture black = solid(20, 10, 0, 0, 0);
  const std::string path = folder.put("black.png", encode_png(black));
  run_ravu({"detect", model, path, "--out", folder.file("out")});
  EXPECT_EQ(tools::read_picture(folder.file("out/black.png")).rgb, black.rgb);
}

TEST_F(ProgramDetect, CopiesNeverReplaceInputs) {
  const Bytes before = folder.get("image.png");
  const Outcome outcome = run_ravu({"detect", model, image, "--out", folder.file("")});
  EXPECT_EQ(outcome.code, 0) << outcome.err;
  EXPECT_EQ(folder.get("image.png"), before);
  EXPECT_NE(folder.get("image-2.png"), Bytes{});
}

TEST_F(ProgramDetect, ImagesOfOneNameGetCopiesOfTheirOwn) {
  fs::create_directory(folder.file("a"));
  const std::string other = folder.put("a/image.jpg", encode_jpeg(solid(9, 7, 0, 0, 0)));
  run_ravu({"detect", model, image, other, "--out", folder.file("out")});
  EXPECT_EQ(tools::read_picture(folder.file("out/image.png")).width, 2U);
  EXPECT_EQ(tools::read_picture(folder.file("out/image-2.png")).width, 9U);
}

TEST_F(ProgramDetect, ASecondRunReplacesTheCopiesOfTheFirst) {
  for (int run = 0; run < 2; ++run) {
    EXPECT_EQ(run_ravu({"detect", model, image, "--out", folder.file("out")}).code, 0);
  }
  EXPECT_FALSE(fs::exists(folder.file("out/image-2.png")));
}

TEST_F(ProgramDetect, AFolderThatCannotBeMadeIsOneLine) {
  expect_refused(run_ravu({"detect", model, image, "--out", image + "/out"}),
                 "cannot make the folder " + image + "/out: Not a directory");
}

TEST_F(ProgramDetect, ACopyThatCannotBeWrittenIsOneLine) {
  fs::create_directories(folder.file("out/image.png"));
  expect_refused(run_ravu({"detect", model, image, "--out", folder.file("out")}),
                 "cannot write " + folder.file("out/image.png") + ": Is a directory");
}

TEST_F(ProgramDetect, TheSheetShowsEveryReadableImage) {
  const Outcome outcome =
      run_ravu({"detect", model, image, broken, image, "--sheet", folder.file("sheet.png")});
  EXPECT_EQ(outcome.code, 1);
  const tools::Picture page = tools::read_picture(folder.file("sheet.png"));
  EXPECT_EQ(page.width, 2 * (448U + 12) + 12);
  EXPECT_LT(page.height, 600U);
}

TEST_F(ProgramDetect, ASheetThatWouldReplaceAnInputIsRefused) {
  const Bytes before = folder.get("model.ravu");
  expect_refused(run_ravu({"detect", model, image, "--sheet", image}),
                 image + ": is an input; it is not overwritten");
  expect_refused(run_ravu({"detect", model, image, "--sheet", model}),
                 model + ": is an input; it is not overwritten");
  EXPECT_EQ(folder.get("model.ravu"), before);
}

TEST_F(ProgramDetect, ACopyDoesNotTakeTheSheetsName) {
  run_ravu({"detect", model, image, "--out", folder.file("out"), "--sheet",
            folder.file("out/image.png")});
  EXPECT_GT(tools::read_picture(folder.file("out/image.png")).width, 448U);
  EXPECT_EQ(tools::read_picture(folder.file("out/image-2.png")).width, 2U);
}

TEST_F(ProgramDetect, ThreadsDoNotChangeWhatIsFound) {
  EXPECT_EQ(run_ravu({"detect", model, image, "--threads", "2"}).out,
            run_ravu({"detect", model, image, "--threads", "1"}).out);
}

double overlap(const json& a, const json& b) {
  const auto side = [](const json& box, int i) { return box[i].get<double>(); };
  const auto area = [&](const json& box) {
    return (side(box, 2) - side(box, 0)) * (side(box, 3) - side(box, 1));
  };
  const double width = std::min(side(a, 2), side(b, 2)) - std::max(side(a, 0), side(b, 0));
  const double height = std::min(side(a, 3), side(b, 3)) - std::max(side(a, 1), side(b, 1));
  const double common = std::max(width, 0.0) * std::max(height, 0.0);
  return common / (area(a) + area(b) - common);
}

TEST(DemoDetector, FindsTheSignsInItsOwnPictures) {
  const fs::path signs(RAVU_SIGNS_FOLDER);
  std::ifstream file(signs / "images" / "truth.json");
  const json truth = json::parse(file);
  std::vector<std::string> arguments{"detect", (signs / "signs.ravu").string(), "--json"};
  for (const json& picture : truth) {
    arguments.push_back((signs / "images" / picture["image"].get<std::string>()).string());
  }
  const json found = json::parse(run_ravu(arguments).out);
  ASSERT_EQ(found.size(), truth.size());
  std::size_t wanted = 0, hits = 0, objects = 0;
  for (std::size_t i = 0; i < truth.size(); ++i) {
    EXPECT_EQ(found[i]["width"], truth[i]["width"]);
    EXPECT_EQ(found[i]["height"], truth[i]["height"]);
    const json& some = found[i]["detections"];
    objects += some.size();
    wanted += truth[i]["signs"].size();
    for (const json& sign : truth[i]["signs"]) {
      hits += std::any_of(some.begin(), some.end(), [&](const json& one) {
        return one["label"] == sign["label"] && overlap(one["box"], sign["box"]) > 0.5;
      });
    }
  }
  // One sign stands almost wholly behind another.
  EXPECT_EQ(hits, wanted - 1);
  EXPECT_LE(objects, wanted + 1);
}

}  // namespace
}  // namespace ravu::test
