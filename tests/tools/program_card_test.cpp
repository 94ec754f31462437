// The card of a converted model: inspect shows it, classify and detect obey it.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include "support/encoders.h"
#include "support/program.h"
#include "support/tool_models.h"

namespace ravu::test {
namespace {

using nlohmann::json;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::Not;
using tools::Picture;

constexpr const char* kCard =
    R"({"source": [{"name": "net.onnx", "sha256": "ab12"}], "task": "classifier",
        "scores": "logits", "input": {"order": "rgb", "fit": "crop"}, "label_offset": 1,
        "verification": {"pictures": 5, "tensors": 7, "worst": [{"relative": 1.25e-06}]}})";

// Two columns of red, two of green between them.
Bytes wide_picture() {
  Picture picture{4, 2, std::vector<std::uint8_t>(24, 0)};
  for (std::size_t i = 0; i < 8; ++i) picture.rgb[i * 3 + (i % 4 == 0 || i % 4 == 3 ? 0 : 1)] = 255;
  return encode_png(picture);
}

json predictions(const std::vector<std::string>& more, const char* card) {
  ModelBuilder builder = colour_model();
  if (card != nullptr) builder.set("model_card", text(card));
  const TemporaryFile model(builder.bytes());
  const TemporaryFile image(wide_picture());
  std::vector<std::string> arguments{"classify", model.path(), image.path(), "--json"};
  arguments.insert(arguments.end(), more.begin(), more.end());
  return json::parse(run_ravu(arguments).out)[0]["predictions"];
}

TEST(ProgramCard, ClassifyFramesAsTheCardSays) {
  EXPECT_NEAR(predictions({}, nullptr)[0]["score"].get<double>(), 0.5, 0.1);
  EXPECT_NEAR(predictions({}, kCard)[0]["score"].get<double>(), 1.0, 1e-5);
}

TEST(ProgramCard, TheUserIsObeyedBeforeTheCard) {
  EXPECT_EQ(predictions({"--fit", "squash"}, kCard)[0]["score"],
            predictions({}, nullptr)[0]["score"]);
}

TEST(ProgramCard, LabelsBeginAtTheCardsOffset) {
  // Output 1 is green, but the first label belongs to it.
  EXPECT_EQ(predictions({}, kCard)[0]["label"], "red");
  EXPECT_EQ(predictions({}, kCard)[0]["index"], 1);
  EXPECT_EQ(predictions({}, kCard)[1]["label"], "0");
}

TEST(ProgramCard, AnOffsetBehindAllScoresLeavesThemWithoutNames) {
  const auto best = predictions({}, R"({"label_offset": 1001})");
  EXPECT_EQ(best[0]["label"], std::to_string(best[0]["index"].get<int>()));
}

TEST(ProgramCard, DetectObeysIt) {
  const TemporaryFile model(quarter_detector().set("model_card", text(kCard)).bytes());
  Picture picture{4, 2, std::vector<std::uint8_t>(24, 0)};
  picture.rgb[(1 * 4 + 2) * 3] = 255;
  picture.rgb[0] = 255;  // cropped away
  const TemporaryFile image(encode_png(picture));
  const json found = json::parse(run_ravu({"detect", model.path(), image.path(), "--json"}).out);
  ASSERT_EQ(found[0]["detections"].size(), 1U);
  EXPECT_EQ(found[0]["detections"][0]["box"], json({2.0, 1.0, 3.0, 2.0}));
}

TEST(ProgramCard, InspectShowsIt) {
  const TemporaryFile model(small_network().set("model_card", text(kCard)).bytes());
  const std::string shown = run_ravu({"inspect", model.path()}).out;
  EXPECT_THAT(shown, HasSubstr("source   net.onnx, SHA-256 ab12\n"
                               "task     classifier, logits\n"
                               "pictures rgb, crop\n"
                               "verified 7 tensors on 5 pictures, worst 1.25e-06 of its range\n"));
  const json summary = json::parse(run_ravu({"inspect", model.path(), "--json"}).out);
  EXPECT_EQ(summary["card"], json::parse(kCard));
}

TEST(ProgramCard, AModelWithoutCardShowsNone) {
  const TemporaryFile model(small_network().bytes());
  EXPECT_THAT(run_ravu({"inspect", model.path()}).out, Not(HasSubstr("source")));
  EXPECT_EQ(json::parse(run_ravu({"inspect", model.path(), "--json"}).out)["card"], nullptr);
}

TEST(ProgramCard, WhatACardDoesNotSayIsLeftAsItIs) {
  for (const char* card : {"{}", R"({"input": 3, "label_offset": -1, "source": "x"})",
                           R"({"label_offset": 1.0})", R"({"label_offset": true})",
                           R"({"label_offset": 1000001})", R"({"label_offset": 4294967297})",
                           R"({"input": {"fit": "stretch"}, "verification": []})"}) {
    EXPECT_EQ(predictions({}, card), predictions({}, nullptr)) << card;
  }
}

TEST(ProgramCard, ADamagedCardIsReported) {
  const TemporaryFile model(small_network().set("model_card", text("{\"task\": ")).bytes());
  const Outcome outcome = run_ravu({"inspect", model.path()});
  EXPECT_EQ(outcome.code, 1);
  EXPECT_EQ(outcome.err,
            std::string("ravu: ") + model.path() + ": \"model_card\" is no JSON object\n");
}

TEST(ProgramCard, QuantiseKeepsIt) {
  const TemporaryFile model(small_network().set("model_card", text(kCard)).bytes());
  const TemporaryFile smaller(Bytes{});
  ASSERT_EQ(run_ravu({"quantise", model.path(), smaller.path(), "--max-error", "10"}).code, 0);
  const json summary = json::parse(run_ravu({"inspect", smaller.path(), "--json"}).out);
  EXPECT_EQ(summary["card"], json::parse(kCard));
}

}  // namespace
}  // namespace ravu::test
