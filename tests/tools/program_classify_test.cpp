// ravu classify, on models whose scores are averages of colours.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <nlohmann/json.hpp>

#include "common/image_file.h"
#include "support/encoders.h"
#include "support/program.h"
#include "support/small_models.h"
#include "support/tool_models.h"

namespace ravu::test {
namespace {

using nlohmann::json;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::SizeIs;

class ProgramClassify : public ::testing::Test {
 protected:
  const TemporaryFile model{colour_model().bytes()};
  const TemporaryFile red{encode_png(solid(5, 3, 255, 51, 0))};
  const TemporaryFile blue{encode_jpeg(solid(16, 16, 0, 0, 255))};
  const TemporaryFile broken{{0xFF, 0xD8, 0xFF, 0}};
};

json parse(const Outcome& outcome) {
  return json::parse(outcome.out);
}

TEST_F(ProgramClassify, PrintsPathRankScoreAndLabelSeparatedByTabs) {
  const Outcome outcome = run_ravu({"classify", model.path(), red.path()});
  const std::string path = red.path();
  EXPECT_EQ(outcome.code, 0);
  EXPECT_EQ(outcome.err, "");
  EXPECT_EQ(lines_of(outcome.out),
            (std::vector<std::string>{path + "\t1\t1.000000\tred", path + "\t2\t0.200000\tgreen",
                                      path + "\t3\t0.000000\tblue"}));
}

TEST_F(ProgramClassify, JsonIsOneArrayWithOneObjectPerImage) {
  const json array =
      parse(run_ravu({"classify", model.path(), red.path(), blue.path(), "--json", "--top", "2"}));
  ASSERT_EQ(array.size(), 2U);
  EXPECT_EQ(array[0]["image"], red.path());
  ASSERT_EQ(array[0]["predictions"].size(), 2U);
  EXPECT_EQ(array[0]["predictions"][1]["label"], "green");
  EXPECT_EQ(array[0]["predictions"][1]["index"], 1);
  EXPECT_NEAR(array[0]["predictions"][1]["score"].get<double>(), 0.2, 1e-5);
  EXPECT_EQ(array[1]["predictions"][0]["label"], "blue");
}

TEST_F(ProgramClassify, ManyImagesGiveWhatEachGivesAlone) {
  const std::string both = run_ravu({"classify", model.path(), red.path(), blue.path()}).out;
  EXPECT_EQ(both, run_ravu({"classify", model.path(), red.path()}).out +
                      run_ravu({"classify", model.path(), blue.path()}).out);
}

TEST_F(ProgramClassify, BgrTurnsTheChannelsRound) {
  const Outcome outcome = run_ravu({"classify", model.path(), red.path(), "--bgr", "--top", "1"});
  EXPECT_THAT(outcome.out, HasSubstr("\tblue\n"));
}

TEST_F(ProgramClassify, AOneChannelModelGetsGreyAndItsIndicesAreLabels) {
  const TemporaryFile grey_model(brightness_model().bytes());
  const json array =
      parse(run_ravu({"classify", grey_model.path(), red.path(), "--json"}))[0]["predictions"];
  ASSERT_EQ(array.size(), 2U);
  const double brightness = 0.299 + 0.587 * 0.2;
  EXPECT_EQ(array[0]["label"], "1");
  EXPECT_NEAR(array[0]["score"].get<double>(), 1 - brightness, 1e-5);
  EXPECT_NEAR(array[1]["score"].get<double>(), brightness, 1e-5);
}

TEST_F(ProgramClassify, FitChoosesWhatTheNetworkSees) {
  // Red, green, green, red.
  tools::Picture picture = solid(4, 2, 0, 255, 0);
  for (const std::size_t x : {0, 3, 4, 7}) {
    picture.rgb[x * 3] = 255;
    picture.rgb[x * 3 + 1] = 0;
  }
  const TemporaryFile image(encode_png(picture));
  const auto green = [&](const char* fit) {
    const json array =
        parse(run_ravu({"classify", model.path(), image.path(), "--json", "--fit", fit}));
    for (const json& prediction : array[0]["predictions"]) {
      if (prediction["label"] == "green") return prediction["score"].get<double>();
    }
    return -1.0;
  };
  EXPECT_NEAR(green("squash"), 0.5, 0.1);
  EXPECT_NEAR(green("crop"), 1.0, 1e-5);
  // A 2 x 1 picture in a 2 x 2 frame: one row of borders.
  EXPECT_NEAR(green("letterbox"), (green("squash") + 128.0 / 255) / 2, 1e-3);
}

TEST_F(ProgramClassify, ChannelMeanReplacesTheMeanImage) {
  std::vector<float> mean(12, 0.0F);
  mean[0] = 204;  // red of the first pixel
  std::vector<float> first_pixel(36, 0.0F);
  first_pixel[0] = 1.0F / 255;  // output "red" reads the first pixel only
  const TemporaryFile with_mean(
      ModelBuilder(2, 3)
          .set("data_mean", tensor({1, 2, 2, 3}, mean))
          .add_layer(layer("neuron", {"data"}, {"scores"})
                         .add("spec", Dictionary().add("num_output", 3))
                         .add("has_bias", 0)
                         .add("weight", tensor({12, 3, 1, 1}, first_pixel)))
          .bytes());
  const auto first = [&](const std::vector<std::string>& more) {
    std::vector<std::string> arguments{"classify", with_mean.path(), red.path(), "--json"};
    arguments.insert(arguments.end(), more.begin(), more.end());
    return parse(run_ravu(arguments))[0]["predictions"][0]["score"].get<double>();
  };
  EXPECT_NEAR(first({}), 0.2, 1e-5);
  EXPECT_NEAR(first({"--channel-mean"}), 0.8, 1e-5);
}

TEST_F(ProgramClassify, ABrokenImageIsOneLineAndTheOthersGoOn) {
  const Outcome outcome =
      run_ravu({"classify", model.path(), red.path(), broken.path(), blue.path(), "--top", "1"});
  EXPECT_EQ(outcome.code, 1);
  EXPECT_THAT(lines_of(outcome.out), SizeIs(2));
  ASSERT_THAT(lines_of(outcome.err), SizeIs(1));
  EXPECT_THAT(outcome.err, HasSubstr(std::string("ravu: ") + broken.path() + ": "));
}

TEST_F(ProgramClassify, JsonOfNoReadableImageIsAnEmptyArray) {
  const Outcome outcome = run_ravu({"classify", model.path(), "/no/image", "--json"});
  EXPECT_EQ(outcome.code, 1);
  EXPECT_TRUE(parse(outcome).empty());
  EXPECT_EQ(outcome.err, "ravu: /no/image: No such file or directory\n");
}

TEST_F(ProgramClassify, LabelsThatAreNoUtf8StillGiveValidJson) {
  const TemporaryFile odd(colour_model().set("label_names", texts({"r\xFF", "g", "b"})).bytes());
  const json array = parse(run_ravu({"classify", odd.path(), red.path(), "--json"}));
  EXPECT_EQ(array[0]["predictions"][0]["label"], "r\xEF\xBF\xBD");
}

TEST_F(ProgramClassify, ATabInALabelMakesNoField) {
  const TemporaryFile odd(colour_model().set("label_names", texts({"r\td", "g", "b"})).bytes());
  const Outcome outcome = run_ravu({"classify", odd.path(), red.path(), "--top", "1"});
  EXPECT_THAT(outcome.out, HasSubstr("\tr?d\n"));
}

TEST_F(ProgramClassify, AnInPlaceLastLayerIsReadOnce) {
  const TemporaryFile rectified(
      colour_model().add_layer(layer("relu", {"scores"}, {"scores"})).bytes());
  EXPECT_EQ(run_ravu({"classify", rectified.path(), red.path()}).out,
            run_ravu({"classify", model.path(), red.path()}).out);
}

TEST_F(ProgramClassify, AModelOfFiveChannelsIsRefused) {
  const TemporaryFile five(ModelBuilder(2, 5).add_layer(layer("max", {"data"}, {"prob"})).bytes());
  const Outcome outcome = run_ravu({"classify", five.path(), red.path()});
  EXPECT_EQ(outcome.code, 1);
  EXPECT_THAT(outcome.err, HasSubstr("wants images of 5 channels"));
}

TEST_F(ProgramClassify, AModelWithoutOutputIsRefused) {
  const TemporaryFile empty(ModelBuilder(2, 3).set("layers", list({})).bytes());
  const Outcome outcome = run_ravu({"classify", empty.path(), red.path()});
  EXPECT_EQ(outcome.code, 1);
  EXPECT_THAT(outcome.err, HasSubstr("the network has no output"));
}

TEST_F(ProgramClassify, ADetectorIsRefused) {
  for (const SmallModel& small : small_models()) {
    if (std::string_view(small.name) != "detector") continue;
    const TemporaryFile detector(small.bytes);
    const Outcome outcome = run_ravu({"classify", detector.path(), red.path()});
    EXPECT_EQ(outcome.code, 1);
    EXPECT_THAT(outcome.err, HasSubstr("is a detector"));
    return;
  }
  FAIL() << "there is no such model";
}

TEST_F(ProgramClassify, TheSheetIsAPngWithOneTilePerImage) {
  const TemporaryFile sheet({});
  const Outcome outcome = run_ravu(
      {"classify", model.path(), red.path(), broken.path(), blue.path(), "--sheet", sheet.path()});
  const tools::Picture page = tools::read_picture(sheet.path());
  EXPECT_GT(page.width, page.height);
  const auto colour_at = [&](std::size_t x, std::size_t y) {
    const auto pixel = page.rgb.begin() + static_cast<std::ptrdiff_t>((y * page.width + x) * 3);
    return Bytes(pixel, pixel + 3);
  };
  EXPECT_EQ(colour_at(120, 120), (Bytes{255, 51, 0}));
  EXPECT_GT(colour_at(348, 120)[2], 250);
  EXPECT_LT(colour_at(348, 120)[0], 5);
}

TEST_F(ProgramClassify, ASheetThatCannotBeWrittenIsOneLine) {
  const Outcome outcome =
      run_ravu({"classify", model.path(), red.path(), "--sheet", "/no/such/folder/sheet.png"});
  EXPECT_EQ(outcome.code, 1);
  EXPECT_EQ(outcome.err,
            "ravu: cannot write /no/such/folder/sheet.png: No such file or directory\n");
}

TEST_F(ProgramClassify, ASheetThatWouldReplaceAnInputIsRefused) {
  const Outcome outcome = run_ravu({"classify", model.path(), red.path(), "--sheet", red.path()});
  EXPECT_EQ(outcome.code, 1);
  EXPECT_EQ(outcome.err,
            "ravu: " + std::string(red.path()) + ": is an input; it is not overwritten\n");
  EXPECT_EQ(run_ravu({"classify", model.path(), red.path()}).code, 0);
}

TEST_F(ProgramClassify, ThreadsDoNotChangeTheScores) {
  EXPECT_EQ(run_ravu({"classify", model.path(), red.path(), "--threads", "2"}).out,
            run_ravu({"classify", model.path(), red.path(), "--threads", "1"}).out);
}

TEST(DemoModel, NamesItsOwnPictures) {
  const std::filesystem::path folder(RAVU_DEMO_FOLDER);
  std::vector<std::string> arguments{"classify", (folder / "characters.ravu").string(), "--top",
                                     "1", "--json"};
  for (const auto& entry : std::filesystem::directory_iterator(folder / "images")) {
    arguments.push_back(entry.path().string());
  }
  const json array = parse(run_ravu(arguments));
  ASSERT_EQ(array.size(), arguments.size() - 5);
  for (const json& result : array) {
    // 01_Z.jpg shows a Z.
    const std::string stem = std::filesystem::path(result["image"].get<std::string>()).stem();
    EXPECT_EQ(result["predictions"][0]["label"], stem.substr(stem.find('_') + 1)) << stem;
  }
}

}  // namespace
}  // namespace ravu::test
