// ravu quantise: errors against a naive codec, refusals that write nothing, keys that survive.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cmath>
#include <filesystem>
#include <limits>
#include <nlohmann/json.hpp>

#include "model/tag_reader.h"
#include "support/program.h"
#include "support/small_models.h"
#include "support/temporary_folder.h"
#include "support/tool_models.h"

namespace ravu::test {
namespace {

using nlohmann::json;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::SizeIs;
namespace fs = std::filesystem;

// What a block of values is after the format's 8 bits: greatest starts above zero, and a value that
// raises it is not considered for the least.
std::vector<double> coded_block(const std::vector<float>& values) {
  float greatest = 1.1754944e-38F;
  float least = 3.4028235e38F;
  for (const float v : values) {
    if (v > greatest) {
      greatest = v;
    } else if (v < least) {
      least = v;
    }
  }
  const auto offset = static_cast<float>((double{least} + double{greatest}) / 2);
  const float step = (greatest - least) / static_cast<float>(values.size());
  std::vector<double> coded;
  for (const float v : values) {
    const float level = std::trunc((v - offset) / step);
    const auto byte = static_cast<float>(std::isfinite(level) ? level : 0.0F);
    coded.push_back(double{byte * step + offset});
  }
  return coded;
}

double naive_error(const std::vector<float>& values) {
  double squares = 0, measure = 0;
  for (std::size_t start = 0; start < values.size(); start += 128) {
    const auto first = values.begin() + static_cast<std::ptrdiff_t>(start);
    const auto n = std::min<std::size_t>(128, values.size() - start);
    const std::vector<float> block(first, first + static_cast<std::ptrdiff_t>(n));
    const auto coded = coded_block(block);
    for (std::size_t i = 0; i < n; ++i) {
      squares += (coded[i] - block[i]) * (coded[i] - block[i]);
      measure += double{block[i]} * block[i];
    }
  }
  return std::sqrt(squares / measure);
}

// One fully connected layer from 2 x 2 x 3 values to `outputs`.
ModelBuilder one_layer(const std::vector<float>& weights, const std::vector<float>& bias) {
  const auto outputs = static_cast<std::int32_t>(bias.size());
  return ModelBuilder(2, 3).add_layer(layer("neuron", {"data"}, {"scores"})
                                          .add("spec", Dictionary().add("num_output", outputs))
                                          .add("weight", tensor({12, outputs, 1, 1}, weights))
                                          .add("has_bias", 1)
                                          .add("bias", tensor({1, 1, 1, outputs}, bias)));
}

// 360 weights and 30 biases: blocks of 128, 128 and 104 values, and of 30.
ModelBuilder sound_model() {
  return one_layer(random_values(360, 1), random_values(30, 2));
}

// Its bias is one positive value in a block of its own.
ModelBuilder doomed_model() {
  return one_layer(random_values(12, 3), {0.25F});
}

Tag root_of(const Bytes& file) {
  return root_tag(file.data(), file.size());
}

Bytes bytes_of(const Tag& tag) {
  return element(tag.type, Bytes(tag.payload, tag.payload + tag.length));
}

class ProgramQuantise : public ::testing::Test {
 protected:
  // The report of a run that succeeds.
  json quantise(const std::string& model, const std::vector<std::string>& more = {}) const {
    std::vector<std::string> arguments{"quantise", model, out, "--json"};
    arguments.insert(arguments.end(), more.begin(), more.end());
    const Outcome outcome = run_ravu(arguments);
    EXPECT_EQ(outcome.code, 0) << outcome.err;
    return json::parse(outcome.out);
  }

  const TemporaryFolder folder;
  const std::string out = folder.file("out.ravu");
  const std::string sound = folder.put("sound.ravu", sound_model().bytes());
  const std::string doomed = folder.put("doomed.ravu", doomed_model().bytes());
};

TEST_F(ProgramQuantise, ReportsTheErrorThatTheCodecCausesForEachTensor) {
  const json report = quantise(sound);
  ASSERT_EQ(report["tensors"].size(), 2U);
  const json& weight = report["tensors"][0];
  EXPECT_EQ(weight["layer"], 0);
  EXPECT_EQ(weight["class"], "neuron");
  EXPECT_EQ(weight["output"], "scores");
  EXPECT_EQ(weight["tensor"], "weight");
  EXPECT_EQ(weight["values"], 360);
  EXPECT_EQ(weight["accepted"], true);
  EXPECT_GT(naive_error(random_values(360, 1)), 0.005);
  EXPECT_NEAR(weight["relative_error"].get<double>(), naive_error(random_values(360, 1)), 1e-7);
  EXPECT_EQ(report["tensors"][1]["tensor"], "bias");
  EXPECT_NEAR(report["tensors"][1]["relative_error"].get<double>(),
              naive_error(random_values(30, 2)), 1e-7);
}

TEST_F(ProgramQuantise, TheFileIsQuantisedAndLoads) {
  const json report = quantise(sound);
  EXPECT_EQ(report["written"], true);
  EXPECT_EQ(report["was_quantised"], false);
  const Bytes file = folder.get("out.ravu");
  EXPECT_EQ(tag_int(get_tag_from_memory(root_of(file), "need_quant")), 1);
  EXPECT_EQ(report["bytes_after"], file.size());
  EXPECT_EQ(report["bytes_before"], folder.get("sound.ravu").size());
  EXPECT_LT(file.size(), folder.get("sound.ravu").size());
  EXPECT_EQ(run_ravu({"inspect", out}).code, 0);
  EXPECT_EQ(folder.entries(), 3U);
}

TEST_F(ProgramQuantise, ReportsHowFarTheOutputsDiffer) {
  const json report = quantise(sound);
  ASSERT_EQ(report["outputs"].size(), 1U);
  EXPECT_EQ(report["seeded_inputs"], 4);
  EXPECT_EQ(report["outputs"][0]["name"], "scores");
  EXPECT_EQ(report["outputs"][0]["values"], 30);
  const double relative = report["outputs"][0]["relative_difference"];
  EXPECT_GT(relative, 1e-4);
  EXPECT_LT(relative, 0.1);
  EXPECT_GT(report["outputs"][0]["greatest_difference"], 0);
}

TEST_F(ProgramQuantise, OfADetectorLocationsAndScoresAreCompared) {
  const std::string detector = folder.put("detector.ravu", quarter_detector().bytes());
  const json report = quantise(detector, {"--max-error", "1"});
  ASSERT_EQ(report["outputs"].size(), 2U);
  EXPECT_EQ(report["outputs"][0]["name"], "locations");
  EXPECT_EQ(report["outputs"][1]["name"], "scores");
}

TEST_F(ProgramQuantise, ATensorOfZerosSurvives) {
  const std::string zeros =
      folder.put("zeros.ravu", one_layer(random_values(360, 1), std::vector<float>(30)).bytes());
  EXPECT_LT(quantise(zeros)["tensors"][1]["relative_error"], 1e-6);
}

TEST_F(ProgramQuantise, EachGroupOfAConvolutionHasItsTensors) {
  const std::string model = folder.put("model.ravu", small_network().bytes());
  const json report = quantise(model, {"--max-error", "1"});
  std::vector<std::string> names;
  for (const json& tensor : report["tensors"]) {
    names.push_back(tensor["output"].get<std::string>() + ' ' +
                    tensor["tensor"].get<std::string>());
  }
  EXPECT_EQ(names,
            (std::vector<std::string>{"conv1 kernels", "conv1 bias", "conv2 layers[0].kernels",
                                      "conv2 layers[0].bias", "conv2 layers[1].kernels",
                                      "conv2 layers[1].bias", "fc weight"}));
}

TEST_F(ProgramQuantise, TextHoldsTheSameFigures) {
  const Outcome outcome = run_ravu({"quantise", sound, out});
  EXPECT_EQ(outcome.code, 0);
  EXPECT_THAT(outcome.err, IsEmpty());
  EXPECT_THAT(outcome.out, HasSubstr("layer  class   output  tensor  values  relative error"));
  EXPECT_THAT(outcome.out, HasSubstr("    0  neuron  scores  weight     360  "));
  EXPECT_THAT(outcome.out, HasSubstr("relative difference"));
  const auto bytes = std::to_string(folder.get("out.ravu").size());
  EXPECT_THAT(outcome.out, HasSubstr(" -> " + bytes + "\n"));
}

TEST_F(ProgramQuantise, ADestroyedTensorIsNamedAndNothingIsWritten) {
  const Outcome outcome = run_ravu({"quantise", doomed, out});
  EXPECT_EQ(outcome.code, 1);
  ASSERT_THAT(lines_of(outcome.err), SizeIs(1));
  EXPECT_THAT(outcome.err,
              HasSubstr("ravu: " + doomed + ": errors above 0.2, nothing is written:"));
  EXPECT_THAT(outcome.err, HasSubstr(" scores bias (6.806e+38)"));
  EXPECT_THAT(outcome.out, HasSubstr("6.806e+38  above 0.2"));
  EXPECT_THAT(outcome.out, HasSubstr("(not written)"));
  EXPECT_EQ(folder.entries(), 2U);
}

TEST_F(ProgramQuantise, ARefusalLeavesAnExistingFileAlone) {
  folder.put("out.ravu", {1, 2, 3});
  const Outcome outcome = run_ravu({"quantise", doomed, out, "--json"});
  EXPECT_EQ(outcome.code, 1);
  EXPECT_EQ(json::parse(outcome.out)["written"], false);
  EXPECT_EQ(folder.get("out.ravu"), (Bytes{1, 2, 3}));
  EXPECT_EQ(folder.entries(), 3U);
}

TEST_F(ProgramQuantise, ARefusalLeavesTheModelAloneThatWouldReplaceItself) {
  const Bytes before = folder.get("doomed.ravu");
  EXPECT_EQ(run_ravu({"quantise", doomed, doomed}).code, 1);
  EXPECT_EQ(folder.get("doomed.ravu"), before);
}

TEST_F(ProgramQuantise, AModelMayReplaceItself) {
  quantise(sound);
  EXPECT_EQ(run_ravu({"quantise", sound, sound}).code, 0);
  EXPECT_EQ(folder.get("sound.ravu"), folder.get("out.ravu"));
}

TEST_F(ProgramQuantise, TheLimitIsTheUsersChoice) {
  EXPECT_EQ(quantise(doomed, {"--max-error", "1e39"})["written"], true);
  EXPECT_EQ(run_ravu({"quantise", sound, out, "--max-error", "0.001"}).code, 1);
  EXPECT_EQ(run_ravu({"quantise", sound, out, "--max-error", "nan"}).code, 1);
}

TEST_F(ProgramQuantise, ManyDestroyedTensorsAreCountedInOneLine) {
  ModelBuilder model(2, 1);
  std::string from = "data";
  for (int i = 0; i < 10; ++i) {
    const std::string to = "fc" + std::to_string(i);
    const int features = i == 0 ? 4 : 1;
    model.add_layer(layer("neuron", {from}, {to})
                        .add("spec", Dictionary().add("num_output", 1))
                        .add("has_bias", 0)
                        .add("weight", tensor({features, 1, 1, 1}, {1, 2, 3, 4})));
    from = to;
  }
  const Outcome outcome = run_ravu({"quantise", folder.put("many.ravu", model.bytes()), out});
  EXPECT_EQ(outcome.code, 1);
  ASSERT_THAT(lines_of(outcome.err), SizeIs(1));
  EXPECT_THAT(outcome.err, HasSubstr("fc0 weight"));
  EXPECT_THAT(outcome.err, HasSubstr("fc7 weight"));
  EXPECT_THAT(outcome.err, HasSubstr(" and 2 more\n"));
}

TEST_F(ProgramQuantise, WeightsThatAreNoNumbersAreRefused) {
  auto weights = random_values(360, 1);
  weights[7] = std::numeric_limits<float>::quiet_NaN();
  const std::string model =
      folder.put("nan.ravu", one_layer(weights, random_values(30, 2)).bytes());
  const Outcome outcome = run_ravu({"quantise", model, out, "--json"});
  EXPECT_EQ(outcome.code, 1);
  EXPECT_TRUE(json::parse(outcome.out)["tensors"][0]["relative_error"].is_null());
  EXPECT_FALSE(fs::exists(out));
}

TEST_F(ProgramQuantise, RootKeysThatTheWriterDropsSurvive) {
  const Bytes card = Dictionary().add("made by", "somebody").add("classes", texts({"a", "b"}));
  const std::string model = folder.put(
      "model.ravu", sound_model().set("need_crop", integer(0)).set("card", card).bytes());
  const json report = quantise(model);
  EXPECT_EQ(report["restored_keys"], json({"need_crop", "card"}));
  const Bytes file = folder.get("out.ravu");
  EXPECT_EQ(tag_int(get_tag_from_memory(root_of(file), "need_crop")), 0);
  EXPECT_EQ(bytes_of(get_tag_from_memory(root_of(file), "card")), card);
}

TEST_F(ProgramQuantise, AModelWithoutCropGetsNone) {
  // With a crop the layer would have too few features, and the new file would not load.
  const std::string model =
      folder.put("model.ravu",
                 sound_model().set("image_size", integer(1)).set("need_crop", integer(0)).bytes());
  EXPECT_EQ(quantise(model)["written"], true);
}

TEST_F(ProgramQuantise, AModelWithACropKeepsIt) {
  const std::string model =
      folder.put("model.ravu", sound_model().set("input_size", integer(4)).bytes());
  EXPECT_EQ(quantise(model)["written"], true);
  const json layers = json::parse(run_ravu({"inspect", out, "--json"}).out)["layers"];
  EXPECT_EQ(layers[0]["class"], "crop");
}

TEST_F(ProgramQuantise, AQuantisedModelCanBeQuantisedAgain) {
  quantise(sound);
  const std::string first = folder.put("first.ravu", folder.get("out.ravu"));
  const json report = quantise(first);
  EXPECT_EQ(report["was_quantised"], true);
  EXPECT_EQ(report["written"], true);
  EXPECT_LT(report["tensors"][0]["relative_error"], 0.2);
  EXPECT_THAT(run_ravu({"quantise", first, out}).out, HasSubstr("was quantised before"));
}

TEST_F(ProgramQuantise, RecordsThatTheEngineDoesNotLoadAreCounted) {
  const std::string model = folder.put(
      "model.ravu", sound_model().add_layer(layer("unknown", {"scores"}, {"x"})).bytes());
  EXPECT_EQ(quantise(model)["dropped_records"], 1);
  EXPECT_EQ(quantise(sound)["dropped_records"], 0);
  EXPECT_THAT(run_ravu({"quantise", model, out}).out, HasSubstr("left out  1 layer record that "));
}

TEST_F(ProgramQuantise, EverySmallModelIsQuantisedWhenAnyErrorIsAllowed) {
  for (const SmallModel& small : small_models()) {
    const std::string model = folder.put("small.ravu", small.bytes);
    EXPECT_EQ(quantise(model, {"--max-error", "1e60"})["written"], true) << small.name;
    EXPECT_EQ(run_ravu({"inspect", out}).code, 0) << small.name;
  }
}

TEST_F(ProgramQuantise, AModelThatDoesNotLoadIsOneLineAndNothingIsWritten) {
  const Bytes whole = sound_model().bytes();
  for (std::size_t length = 0; length < whole.size(); length += 211) {
    const std::string cut = folder.put(
        "cut.ravu", Bytes(whole.begin(), whole.begin() + static_cast<std::ptrdiff_t>(length)));
    const Outcome outcome = run_ravu({"quantise", cut, out});
    EXPECT_EQ(outcome.code, 1);
    EXPECT_THAT(lines_of(outcome.err), SizeIs(1));
    EXPECT_FALSE(fs::exists(out));
  }
  const std::string keyless = folder.put("keyless.ravu", sound_model().remove("layers").bytes());
  EXPECT_EQ(run_ravu({"quantise", keyless, out}).err,
            "ravu: " + keyless + ": layers: the key is missing\n");
}

TEST_F(ProgramQuantise, AFileThatCannotBeWrittenIsOneLine) {
  for (const std::string& path :
       {std::string("/no/such/folder/m"), std::string("/dev/full"), folder.file("")}) {
    const Outcome outcome = run_ravu({"quantise", sound, path});
    EXPECT_EQ(outcome.code, 1);
    EXPECT_THAT(outcome.out, IsEmpty());
    EXPECT_EQ(outcome.err, "ravu: cannot write " + path + '\n');
  }
}

TEST(DemoModels, StayWithinTheDefaultLimit) {
  const TemporaryFolder folder;
  for (const fs::path& model : {fs::path(RAVU_DEMO_FOLDER) / "characters.ravu",
                                fs::path(RAVU_SIGNS_FOLDER) / "signs.ravu"}) {
    const Outcome outcome =
        run_ravu({"quantise", model.string(), folder.file("out.ravu"), "--json"});
    EXPECT_EQ(outcome.code, 0) << outcome.err;
    EXPECT_LT(fs::file_size(folder.file("out.ravu")), fs::file_size(model) / 3);
  }
}

}  // namespace
}  // namespace ravu::test
