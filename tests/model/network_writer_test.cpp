// Saving: every record's keys in their order, byte-stable files, and destinations that survive.
#include "model/network_writer.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <random>

#include "graph/cpu_backend.h"
#include "layers/EltWiseLayer.h"
#include "model/tag_writer.h"
#include "support/blobs.h"
#include "support/small_models.h"

namespace ravu::test {
namespace {

namespace fs = std::filesystem;

Bytes written(const Network& network, bool quantise = false) {
  std::uint8_t* element = write_network(network, quantise);
  if (element == nullptr) return {};
  Bytes bytes(element, element + element_bytes(element));
  std::free(element);
  return bytes;
}

Bytes bytes_of(const Tag& tag) {
  return element(tag.type, Bytes(tag.payload, tag.payload + tag.length));
}

// The record that is written for a layer that was read from `record`.
Bytes rewritten(const Bytes& record, int input_size = 4, int channels = 2) {
  const LoadedLayer loaded = load_layer(record, input_size, channels);
  EXPECT_TRUE(loaded.network) << loaded.reason;
  if (!loaded.network) return {};
  const Bytes file = written(*loaded.network);
  TagWalk walk(get_tag_from_memory(root_tag(file.data(), file.size()), "layers"));
  EXPECT_TRUE(walk.next());
  return bytes_of(walk.child);
}

// The names that end every record.
Dictionary& with_names(Dictionary& record, const std::vector<std::string>& inputs = {"data"},
                       const std::vector<std::string>& outputs = {"out"}) {
  return record.add("output_layers", texts(outputs)).add("input_layers", texts(inputs));
}

Dictionary record_of(const char* keyword) {
  return Dictionary().add("class", keyword);
}

// The six entries of written dims.
Bytes written_tensor(const std::vector<std::int32_t>& dims, const std::vector<float>& values) {
  std::vector<std::int32_t> six = dims;
  six.push_back(static_cast<std::int32_t>(values.size()));
  six.push_back(0);
  return tensor(six, values);
}

// A record that is written key by key as it stands: read it, write it, compare.
void expect_same(Dictionary record) {
  const Bytes expected = with_names(record);
  EXPECT_EQ(rewritten(expected), expected);
}

Dictionary& add_conv_keys(Dictionary& record, int groups, const std::vector<float>& kernels) {
  return record.add("spec", Dictionary().add("num_kernels", 1).add("ksize", 1).add("stride", 1))
      .add("kernels", written_tensor({1, static_cast<int>(kernels.size()), 1, 1}, kernels))
      .add("are_kernels_transposed", 1)
      .add("has_bias", 1)
      .add("dilation_h", 1)
      .add("dilation_w", 1)
      .add("bias", written_tensor({1, 1, 1, 1}, {0.5F}))
      .add("layers_count", groups)
      .add("padding", 0);
}

TEST(NetworkWriter, WritesConvolutions) {
  Dictionary record = record_of("conv");
  expect_same(add_conv_keys(record, 1, {0.25F, 0.75F}));
}

TEST(NetworkWriter, WritesGroupedConvolutionsWithTheirCountFirst) {
  Dictionary set = record_of("conv");
  add_conv_keys(set, 2, {0.25F});
  expect_same(
      Dictionary().add("layers_count", 2).add("class", "gconv").add("layers", list({set, set})));
}

TEST(NetworkWriter, WritesFullyConnectedLayers) {
  expect_same(record_of("neuron")
                  .add("spec", Dictionary().add("num_output", 1))
                  .add("are_weights_transposed", 0)
                  .add("weight", written_tensor({2, 1, 1, 1}, {1, 2}))
                  .add("has_bias", 1)
                  .add("bias", written_tensor({1, 1, 1, 1}, {3})));
}

// One row of four features for each of three outputs, which is what planar rows are, flag or not.
TEST(NetworkWriter, TheNumberOfOutputsIsTheOutputsWhateverTheWeightsDims) {
  for (const char* layout : {"BHWC", "BCHW"}) {
    for (const std::vector<std::int32_t>& dims : {std::vector<std::int32_t>{3, 4}, {4, 3}}) {
      for (const int outputs : {1, 2, 3, 4}) {
        const auto loaded =
            load(ModelBuilder(2, 1)
                     .set("layout", text(layout))
                     .add_layer(layer("neuron", {"data"}, {"f"})
                                    .add("spec", Dictionary().add("num_output", outputs))
                                    .add("weight", tensor(dims, random_values(12, 1)))
                                    .add("has_bias", 0)));
        if (!loaded.network) continue;  // more than the weights have
        for (const bool set_up : {false, true}) {
          if (set_up) setup_cpu(*loaded.network, 0);
          const auto reloaded = load(written(*loaded.network));
          ASSERT_TRUE(reloaded.network) << reloaded.reason;
          EXPECT_EQ(reloaded.network->outputs[0]->dims, loaded.network->outputs[0]->dims);
        }
      }
    }
  }
}

TEST(NetworkWriter, WritesBatchNormalisationWithTwoKeysThatNobodyReads) {
  expect_same(record_of("bn")
                  .add("maf", 0.5F)
                  .add("eps", 0.25F)
                  .add("is_global", 1)
                  .add("channels", 2)
                  .add("mean", written_tensor({1, 1, 1, 2}, {1, 2}))
                  .add("var", written_tensor({1, 1, 1, 2}, {3, 4})));
}

TEST(NetworkWriter, WritesScales) {
  expect_same(record_of("scale")
                  .add("has_bias", 1)
                  .add("scales", written_tensor({1, 1, 1, 2}, {1, 2}))
                  .add("bias", written_tensor({1, 1, 1, 2}, {3, 4})));
  expect_same(
      record_of("scale").add("has_bias", 0).add("scales", written_tensor({1, 1, 1, 2}, {1, 2})));
}

TEST(NetworkWriter, WritesActivations) {
  expect_same(record_of("relu").add("negative_slope", 0.125F));
  expect_same(record_of("prelu")
                  .add("channel_shared", 1)
                  .add("filler", written_tensor({1, 1, 1, 2}, {0.5F, 0.25F})));
  expect_same(record_of("power").add("power", 2.0F).add("scale", 3.0F).add("shift", 4.0F));
  expect_same(record_of("max"));
}

TEST(NetworkWriter, WritesElementWiseOperationsByName) {
  for (const char* operation : {"sum", "max", "prod"}) {
    expect_same(record_of("eltwise").add("operation", operation));
  }
}

TEST(NetworkWriter, AnElementWiseOperationWithoutANameIsLeftOut) {
  Dictionary sum = record_of("eltwise").add("operation", "sum");
  const LoadedLayer loaded = load_layer(with_names(sum), 4, 2);
  ASSERT_NE(loaded.layer, nullptr);
  static_cast<EltWiseLayer&>(*loaded.layer).operation = 1;
  const Bytes file = written(*loaded.network);
  TagWalk walk(get_tag_from_memory(root_tag(file.data(), file.size()), "layers"));
  ASSERT_TRUE(walk.next());
  Dictionary expected = record_of("eltwise");
  EXPECT_EQ(bytes_of(walk.child), with_names(expected).bytes());
}

TEST(NetworkWriter, WritesPooling) {
  for (const char* mode : {"max", "avg"}) {
    expect_same(record_of("pool")
                    .add("psize", 2)
                    .add("stride", 2)
                    .add("paddingW", 0)
                    .add("paddingH", 1)
                    .add("mode", mode));
  }
}

TEST(NetworkWriter, WritesNormalisations) {
  expect_same(
      record_of("normalize").add("size", 3).add("k", 1.0F).add("alpha", 0.5F).add("beta", 0.75F));
  expect_same(record_of("norm")
                  .add("across_spatial", 0)
                  .add("channel_shared", 1)
                  .add("scale", written_tensor({1, 1, 1, 1}, {20})));
}

TEST(NetworkWriter, WritesShapeLayers) {
  expect_same(record_of("concat"));
  expect_same(record_of("flatten"));
  expect_same(
      record_of("permute").add("need_permute", 1).add("permute_order", small_ints({0, 2, 1, 3})));
  expect_same(record_of("reshape")
                  .add("constant_count", 0)
                  .add("inferred_axis", 3)
                  .add("dims", small_ints({0, 1, 1, -1})));
}

TEST(NetworkWriter, WritesPriorBoxesWithTheirBitsAsIntegers) {
  Dictionary record = record_of("priorbox")
                          .add("offset", 0.5F)
                          .add("flip", 1)
                          .add("num_priors", 2)
                          .add("clip", 0)
                          .add("img_h", 300)
                          .add("img_w", 300)
                          .add("step_h", 8)
                          .add("step_w", 8)
                          .add("aspect_ratios", small_floats({2.0F}))
                          .add("variance", small_floats({0.1F, 0.1F, 0.2F, 0.2F}))
                          .add("min_size", small_floats({30.0F}))
                          .add("max_size", small_floats({}));
  const Bytes expected = with_names(record, {"data", "data"});
  EXPECT_EQ(rewritten(expected), expected);
}

TEST(NetworkWriter, WritesDetectionOutput) {
  Dictionary record = record_of("detectionout")
                          .add("num_classes", 1)
                          .add("share_location", 1)
                          .add("num_loc_classes", 1)
                          .add("background_label_id", 0)
                          .add("code_type", 2)
                          .add("variance_encoded_in_target", 1)
                          .add("keep_top_k", 5)
                          .add("confidence_threshold", 0.25F)
                          .add("nms_threshold", 0.5F)
                          .add("eta", 1.0F)
                          .add("top_k", 10);
  const Bytes expected = with_names(record, {"data", "data", "data"});
  EXPECT_EQ(rewritten(expected, 4, 4), expected);
}

TEST(NetworkWriter, TheRootsKeysHaveTheirOrder) {
  const auto result = load(ModelBuilder(2, 1)
                               .set("data_mean", tensor({1, 2, 2, 1}, {1, 2, 3, 4}))
                               .set("label_names", texts({"one", "two"}))
                               .add_layer(layer("max", {"data"}, {"out"})));
  ASSERT_TRUE(result.network) << result.reason;
  Dictionary softmax = record_of("max");
  const Bytes expected = Dictionary()
                             .add("data_mean", written_tensor({1, 2, 2, 1}, {1, 2, 3, 4}))
                             .add("layout", "BHWC")
                             .add("layers", list({with_names(softmax)}))
                             .add("label_names", texts({"one", "two"}))
                             .add("input_name", "data")
                             .add("need_quant", 0)
                             .add("input_size", 2)
                             .add("image_size", 2)
                             .add("input_channel_num", 1);
  EXPECT_EQ(written(*result.network), expected);
}

TEST(NetworkWriter, AnEmptyLabelListIsStillWritten) {
  const auto result = load(ModelBuilder(2, 1).add_layer(layer("max", {"data"}, {"out"})));
  const Bytes file = written(*result.network);
  const Tag labels = get_tag_from_memory(root_tag(file.data(), file.size()), "label_names");
  ASSERT_TRUE(labels);
  EXPECT_EQ(labels.length, 0U);
}

TEST(NetworkWriter, NeedCropIsDroppedAndTheCropComesBackOnReload) {
  const auto result = load(ModelBuilder(6, 1)
                               .set("image_size", integer(2))
                               .set("need_crop", integer(0))
                               .add_layer(layer("max", {"data"}, {"out"})));
  ASSERT_TRUE(result.network) << result.reason;
  EXPECT_EQ(result.network->layers.size(), 1U);
  const auto reloaded = load(written(*result.network));
  ASSERT_TRUE(reloaded.network) << reloaded.reason;
  EXPECT_EQ(reloaded.network->layers.size(), 2U);
  // The crop itself has no record: saving again writes one layer.
  EXPECT_EQ(written(*reloaded.network), written(*result.network));
}

TEST(NetworkWriter, FilesAreByteStable) {
  for (const SmallModel& model : small_models()) {
    const auto first = load(model.bytes);
    ASSERT_TRUE(first.network) << model.name << ": " << first.reason;
    const Bytes once = written(*first.network);
    const auto second = load(once);
    ASSERT_TRUE(second.network) << model.name << ": " << second.reason;
    EXPECT_EQ(written(*second.network), once) << model.name;
  }
}

TEST(NetworkWriter, QuantisedFilesLoadAndOnlyProductsAreQuantised) {
  for (const SmallModel& model : small_models()) {
    const auto first = load(model.bytes);
    const Bytes file = written(*first.network, /*quantise=*/true);
    const Tag root = root_tag(file.data(), file.size());
    EXPECT_EQ(tag_int(get_tag_from_memory(root, "need_quant")), 1);
    EXPECT_TRUE(load(file).network) << model.name;
    for (TagWalk walk(get_tag_from_memory(root, "layers")); walk.next();) {
      const auto has_steps = [&](const char* key) {
        return static_cast<bool>(
            get_tag_from_memory(get_tag_from_memory(walk.child, key), "step_f"));
      };
      const auto keyword = tag_text(get_tag_from_memory(walk.child, "class"));
      EXPECT_EQ(has_steps("kernels"), keyword == "conv") << model.name;
      EXPECT_EQ(has_steps("weight"), keyword == "neuron") << model.name;
      for (const char* key : {"mean", "var", "scales", "scale", "filler"}) {
        EXPECT_FALSE(has_steps(key)) << model.name << " " << key;
      }
      EXPECT_FALSE(keyword == "scale" && has_steps("bias")) << model.name;
    }
  }
}

TEST(NetworkWriter, AReleasedTensorCannotBeWritten) {
  for (const SmallModel& model : small_models()) {
    const auto result = load(model.bytes);
    const Bytes before = written(*result.network);
    result.network->release_weights();
    const Bytes after = written(*result.network);
    EXPECT_TRUE(after.empty() || after == before) << model.name;  // equal: nothing to release
  }
}

// A network and a folder to save it in.
class SaveNetwork : public testing::Test {
 protected:
  void SetUp() override {
    network_ = load(small_models()[0].bytes).network;
    ASSERT_TRUE(network_);
    folder_ = fs::temp_directory_path() / ("ravu_save_" + std::to_string(std::random_device{}()));
    fs::create_directory(folder_);
  }
  void TearDown() override { fs::remove_all(folder_); }

  static Bytes contents(const fs::path& path) {
    std::ifstream file(path, std::ios::binary);
    return Bytes(std::istreambuf_iterator<char>(file), {});
  }
  void put(const fs::path& path) { std::ofstream(path) << "a good model"; }
  // Saves and compares what goes to standard error.
  bool save(const fs::path& path, const std::string& expected_error = "") {
    testing::internal::CaptureStderr();
    const bool saved = save_network(*network_, path.string().c_str(), /*quantise=*/false);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), expected_error);
    return saved;
  }
  std::size_t files_in_folder() const {
    return static_cast<std::size_t>(
        std::distance(fs::directory_iterator(folder_), fs::directory_iterator()));
  }

  std::unique_ptr<Network> network_;
  fs::path folder_;
};

TEST_F(SaveNetwork, WritesANewFileAndNothingElse) {
  const fs::path path = folder_ / "new.ravu";
  EXPECT_TRUE(save(path));
  EXPECT_EQ(contents(path), written(*network_));
  EXPECT_EQ(files_in_folder(), 1U);
}

TEST_F(SaveNetwork, ReplacesAnExistingFileAndKeepsItsMode) {
  const fs::path path = folder_ / "old.ravu";
  put(path);
  fs::permissions(path, fs::perms::owner_read | fs::perms::owner_write);
  EXPECT_TRUE(save(path));
  EXPECT_EQ(contents(path), written(*network_));
  EXPECT_EQ(fs::status(path).permissions(), fs::perms::owner_read | fs::perms::owner_write);
  EXPECT_EQ(files_in_folder(), 1U);
}

TEST_F(SaveNetwork, AFinishedRootIsWrittenWithoutAMessage) {
  const Bytes root = Dictionary().add("card", "somebody's");
  const std::string path = (folder_ / "root.ravu").string();
  const std::string nowhere = (folder_ / "missing" / "root.ravu").string();
  testing::internal::CaptureStderr();
  EXPECT_TRUE(write_model_file(root.data(), path.c_str()));
  EXPECT_FALSE(write_model_file(root.data(), nowhere.c_str()));
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
  EXPECT_EQ(contents(path), root);
  EXPECT_EQ(files_in_folder(), 1U);
}

TEST_F(SaveNetwork, FollowsALink) {
  const fs::path target = folder_ / "target.ravu";
  const fs::path link = folder_ / "link.ravu";
  put(target);
  fs::create_symlink(target, link);
  EXPECT_TRUE(save(link));
  EXPECT_TRUE(fs::is_symlink(link));
  EXPECT_EQ(contents(target), written(*network_));
}

TEST_F(SaveNetwork, AFolderThatIsNotThereIsReported) {
  const fs::path path = folder_ / "nowhere" / "model.ravu";
  EXPECT_FALSE(save(path, "Fail to save graph to " + path.string() + "\n"));
}

TEST_F(SaveNetwork, AFolderAsDestinationIsReported) {
  EXPECT_FALSE(save(folder_, "Fail to save graph to " + folder_.string() + "\n"));
}

TEST_F(SaveNetwork, AReleasedTensorLeavesAnExistingFileAsItWas) {
  const fs::path path = folder_ / "kept.ravu";
  put(path);
  network_->release_weights();
  EXPECT_FALSE(save(path, "Fail to save graph to " + path.string() + "\n"));
  const std::string text = "a good model";
  EXPECT_EQ(contents(path), Bytes(text.begin(), text.end()));
  EXPECT_EQ(files_in_folder(), 1U);
}

TEST_F(SaveNetwork, ANullPathIsReported) {
  testing::internal::CaptureStderr();
  EXPECT_FALSE(save_network(*network_, nullptr, false));
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "Fail to save graph to \n");
}

}  // namespace
}  // namespace ravu::test
