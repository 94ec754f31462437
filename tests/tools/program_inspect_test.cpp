// ravu inspect: the layer table and the tag tree, as text and as JSON.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include "support/program.h"
#include "support/tool_models.h"

namespace ravu::test {
namespace {

using nlohmann::json;
using ::testing::ElementsAre;
using ::testing::EndsWith;
using ::testing::HasSubstr;

TEST(ProgramInspect, PrintsALineForEachLayerAndTheTotal) {
  const TemporaryFile model(small_network().bytes());
  const Outcome outcome = run_ravu({"inspect", model.path()});
  EXPECT_EQ(outcome.code, 0);
  EXPECT_EQ(outcome.err, "");
  EXPECT_THAT(lines_of(outcome.out),
              ElementsAre("input    1x8x8x3", "mean     none", "labels   0", "outputs  prob", "",
                          "index  class   output  shape    parameters  multiply-adds",
                          "    0  conv    conv1   1x8x8x4         112           6912",
                          "    1  relu    conv1   1x8x8x4           0              0",
                          "    2  pool    pool1   1x4x4x4           0              0",
                          "    3  gconv   conv2   1x4x4x6          18            192",
                          "    4  neuron  fc      1x1x1x5         480            480",
                          "    5  max     prob    1x1x1x5           0              0",
                          "    -  total   -       -               610           7584"));
}

TEST(ProgramInspect, ThePlanNamesHowEachLayerIsComputed) {
  const TemporaryFile model(small_network().bytes());
  const auto lines = lines_of(run_ravu({"inspect", model.path(), "--plan"}).out);
  ASSERT_EQ(lines.size(), 13U);
  EXPECT_THAT(lines[5], EndsWith("multiply-adds  kernel"));
  EXPECT_THAT(lines[6], EndsWith("6912  direct"));
  EXPECT_THAT(lines[7], EndsWith("0  fused"));
  EXPECT_THAT(lines[8], EndsWith("0  -"));
  EXPECT_THAT(lines[9], EndsWith("192  direct"));
  const json planned = json::parse(run_ravu({"inspect", model.path(), "--plan", "--json"}).out);
  EXPECT_EQ(planned["layers"][1]["kernel"], "fused");
  EXPECT_FALSE(planned["layers"][2].contains("kernel"));
}

TEST(ProgramInspect, JsonHoldsTheSameFigures) {
  const TemporaryFile model(small_network().set("label_names", texts({"a", "b"})).bytes());
  const json summary =
      json::parse(run_ravu({"inspect", model.path(), "--json", "--batch", "2"}).out);
  EXPECT_EQ(summary["model"], model.path());
  EXPECT_EQ(summary["input"], json({2, 8, 8, 3}));
  EXPECT_EQ(summary["mean"], false);
  EXPECT_EQ(summary["labels"], 2);
  EXPECT_EQ(summary["outputs"], json({"prob"}));
  EXPECT_EQ(summary["parameters"], 610);
  EXPECT_EQ(summary["multiply_adds"], 2 * 7584);
  ASSERT_EQ(summary["layers"].size(), 6U);
  EXPECT_EQ(summary["layers"][3]["index"], 3);
  EXPECT_EQ(summary["layers"][3]["class"], "gconv");
  EXPECT_EQ(summary["layers"][3]["output"], "conv2");
  EXPECT_EQ(summary["layers"][3]["shape"], json({2, 4, 4, 6}));
  EXPECT_EQ(summary["layers"][3]["parameters"], 18);
}

TEST(ProgramInspect, AnOutputThatSeveralLayersWriteIsNamedOnce) {
  const TemporaryFile model(small_network().add_layer(layer("relu", {"prob"}, {"prob"})).bytes());
  EXPECT_THAT(run_ravu({"inspect", model.path()}).out, HasSubstr("outputs  prob\n"));
}

TEST(ProgramInspect, TagsShowTheFileAsItIs) {
  const TemporaryFile model(ModelBuilder(2, 3).set("labels", texts({"a"})).bytes());
  EXPECT_THAT(
      lines_of(run_ravu({"inspect", model.path(), "--tags"}).out),
      ElementsAre("dictionary 208", "  layout: text 8 \"BHWC\"", "  input_size: int 4 2",
                  "  image_size: int 4 2", "  input_channel_num: int 4 3",
                  "  input_name: text 8 \"data\"", "  labels: list 12", "    text 4 \"a\""));
}

TEST(ProgramInspect, TagsAsJsonNestChildren) {
  const TemporaryFile model(small_network().bytes());
  const json root = json::parse(run_ravu({"inspect", model.path(), "--tags", "--json"}).out);
  EXPECT_EQ(root["type"], "dictionary");
  const json& layers = root["children"].back();
  EXPECT_EQ(layers["key"], "layers");
  EXPECT_EQ(layers["type"], "list");
  EXPECT_EQ(layers["children"].size(), 6U);
}

TEST(ProgramInspect, TagsOfADamagedFileAreShownAsFarAsTheyGo) {
  Bytes payload = text("broken");
  payload.push_back(1);
  const TemporaryFile model(element(4, payload));
  const Outcome outcome = run_ravu({"inspect", model.path(), "--tags"});
  EXPECT_EQ(outcome.code, 0);
  EXPECT_THAT(outcome.out, HasSubstr("damaged: the key \"broken\" has no value"));
}

TEST(ProgramInspect, EveryShorterPrefixOfAModelIsRefused) {
  const Bytes whole = colour_model().bytes();
  for (std::size_t length = 0; length < whole.size(); length += 97) {
    const TemporaryFile cut(
        Bytes(whole.begin(), whole.begin() + static_cast<std::ptrdiff_t>(length)));
    EXPECT_EQ(run_ravu({"inspect", cut.path()}).code, 1) << length;
  }
}

}  // namespace
}  // namespace ravu::test
