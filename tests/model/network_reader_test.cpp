// The root record: sizes, mean, crop, layers and their retry, outputs, labels, refusals.
#include "model/network_reader.h"

#include <gtest/gtest.h>

#include <string>
#include <utility>

#include "graph/cpu_backend.h"
#include "layers/CropLayer.h"
#include "layers/FullyConnectLayer.h"
#include "support/blobs.h"
#include "support/captured.h"

namespace ravu::test {
namespace {

using Names = std::vector<std::string>;

Bytes relu(const char* from, const char* to) {
  return layer("relu", {from}, {to});
}

// An input "data" of two by two pixels with two channels, rectified in place.
ModelBuilder small_model() {
  return ModelBuilder(2, 2).add_layer(relu("data", "data"));
}

LoadOptions with_batch(std::uint32_t batch) {
  LoadOptions options;
  options.batch = batch;
  return options;
}

LoadOptions with_channel_mean() {
  LoadOptions options;
  options.channel_mean = true;
  return options;
}

Names output_names(const Network& network) {
  Names names;
  for (const Blob* output : network.outputs) names.push_back(output->name);
  return names;
}

TEST(NetworkReader, ReadsTheSizes) {
  const auto result =
      load(ModelBuilder(6, 3).set("image_size", integer(4)).add_layer(relu("data", "a")));
  ASSERT_TRUE(result.network) << result.reason;
  const Network& network = *result.network;
  EXPECT_EQ(network.input_width, 6U);
  EXPECT_EQ(network.input_height, 6U);
  EXPECT_EQ(network.image_width, 4U);
  EXPECT_EQ(network.image_height, 4U);
  EXPECT_EQ(network.input_channels, 3U);
  EXPECT_TRUE(result.reason.empty());
}

TEST(NetworkReader, TheInputHasTheBatchAndZeroedStorage) {
  const auto result = load(small_model(), with_batch(3));
  ASSERT_TRUE(result.network);
  const Blob& input = *result.network->input;
  EXPECT_EQ(input.name, "data");
  EXPECT_EQ(input.dims, (Dims{3, 2, 2, 2}));
  EXPECT_EQ(values_of(input), std::vector<float>(24, 0.0F));
  EXPECT_EQ(result.network->blobs_by_name.at("data"), &input);
}

TEST(NetworkReader, OnlyExactlyBchwIsPlanar) {
  const auto layout = [](ModelBuilder model) {
    const auto result = load(model.set("data_mean", tensor({1, 2, 2, 2}, random_values(8, 1))));
    EXPECT_EQ(result.network->mean->layout, result.network->layout);
    EXPECT_EQ(result.network->input->layout, result.network->layout);
    return result.network->layout;
  };
  EXPECT_EQ(layout(small_model().set("layout", text("BCHW"))), kPlanar);
  for (const char* other : {"BHWC", "bchw", "BCHWx", "BCH", ""}) {
    EXPECT_EQ(layout(small_model().set("layout", text(other))), kInterleaved) << other;
  }
  EXPECT_EQ(layout(small_model().remove("layout")), kInterleaved);
}

TEST(NetworkReader, WeightsTakeTheModelsLayout) {
  for (const bool planar : {false, true}) {
    const auto result =
        load(ModelBuilder(1, 2)
                 .set("layout", text(planar ? "BCHW" : "BHWC"))
                 .add_layer(layer("neuron", {"data"}, {"a"})
                                .add("spec", Dictionary().add("num_output", 1).bytes())
                                .add("weight", tensor({1, 2}, {1, 2}))
                                .add("are_weights_transposed", 1)
                                .add("has_bias", 0)));
    ASSERT_TRUE(result.network) << result.reason;
    const auto& fc = dynamic_cast<FullyConnectLayer&>(*result.network->layers[0]);
    EXPECT_EQ(fc.weights->layout, planar ? kPlanar : kInterleaved);
  }
}

TEST(NetworkReader, EveryRequiredKeyIsMissedByName) {
  for (const char* key :
       {"input_size", "image_size", "input_channel_num", "input_name", "layers"}) {
    const auto result = load(small_model().remove(key));
    EXPECT_FALSE(result.network) << key;
    EXPECT_EQ(result.reason, std::string(key) + ": the key is missing");
  }
}

TEST(NetworkReader, AnIntegerOfFewerThanFourBytesIsRefused) {
  for (const char* key :
       {"input_size", "image_size", "input_channel_num", "need_crop", "need_quant"}) {
    const auto result = load(small_model().set(key, raw_bytes({1, 0, 0})));
    EXPECT_FALSE(result.network) << key;
    EXPECT_EQ(result.reason, std::string(key) + ": the value is too short");
  }
}

TEST(NetworkReader, TheRootMustBeADictionary) {
  const char* reason = "the file is not a model: its root is no dictionary";
  EXPECT_EQ(load(list({})).reason, reason);
  EXPECT_EQ(load(Bytes{}).reason, reason);
  Bytes model = small_model().bytes();
  model[0] = 5;
  EXPECT_EQ(load(model).reason, reason);
}

TEST(NetworkReader, ABatchOfZeroIsRefused) {
  EXPECT_EQ(load(small_model(), with_batch(0)).reason, "the batch must be at least 1");
}

TEST(NetworkReader, NegativeAndHugeSizesAreRefused) {
  const char* reason = "input_size: negative, or the input would be too large";
  EXPECT_EQ(load(small_model().set("input_size", integer(-1))).reason, reason);
  EXPECT_EQ(load(small_model().set("input_channel_num", integer(-1))).reason, reason);
  EXPECT_EQ(load(small_model().set("input_size", integer(1 << 16))).reason, reason);
  EXPECT_EQ(load(small_model(), with_batch(0xFFFFFFFF)).reason, reason);
  EXPECT_EQ(load(small_model().set("image_size", integer(-1))).reason,
            "image_size: negative, or the image would be too large");
}

TEST(NetworkReader, MoreStorageThanTheLimitIsRefusedBeforeAnyIsGivenOut) {
  LoadOptions options;
  options.memory_limit = 8 * 4 - 1;
  EXPECT_EQ(load(small_model(), options).reason,
            "the network's tensors would take more memory than this machine has");
  options.memory_limit = 8 * 4;
  EXPECT_TRUE(load(small_model(), options).network);
  constexpr std::uint64_t kBlobBytes = std::uint64_t{4} << 30;  // 32768 x 32768 floats
  std::vector<Bytes> records;
  for (std::uint64_t i = 0; i <= machine_memory() / kBlobBytes; ++i) {
    records.push_back(relu("data", ("b" + std::to_string(i)).c_str()));
  }
  EXPECT_FALSE(load(ModelBuilder(1 << 15, 1).set("layers", list(records))).network);
}

TEST(NetworkReader, AnEmptyLayerListIsANetworkWithoutOutputs) {
  const auto result = load(ModelBuilder(2, 2).set("layers", list({})));
  ASSERT_TRUE(result.network) << result.reason;
  EXPECT_TRUE(result.network->layers.empty());
  EXPECT_TRUE(result.network->outputs.empty());
}

TEST(NetworkReader, LabelsAreReadInOrder) {
  const auto result = load(small_model().set("label_names", texts({"cat", "", "a longer dog"})));
  ASSERT_EQ(result.network->labels.size(), 3U);
  EXPECT_STREQ(result.network->labels[0], "cat");
  EXPECT_STREQ(result.network->labels[1], "");
  EXPECT_STREQ(result.network->labels[2], "a longer dog");
  EXPECT_TRUE(load(small_model().set("label_names", list({}))).network->labels.empty());
  EXPECT_TRUE(load(small_model()).network->labels.empty());
}

TEST(NetworkReader, ADamagedLabelListKeepsTheLabelsBeforeTheDamage) {
  Bytes names = texts({"cat", "dog"});
  names[8 + 12 + 4] = 200;
  EXPECT_EQ(captured_stderr([&] {
              const auto result = load(small_model().set("label_names", names));
              ASSERT_TRUE(result.network);
              EXPECT_EQ(result.network->labels.size(), 1U);
            }),
            kNotEnoughBytes);
}

TEST(NetworkReader, ADamagedLayerListKeepsTheLayersBeforeTheDamage) {
  const Bytes first = relu("data", "a");
  Bytes layers = list({first, relu("a", "b")});
  layers[8 + first.size() + 4] += 1;
  EXPECT_EQ(captured_stderr([&] {
              const auto result = load(small_model().set("layers", layers));
              ASSERT_TRUE(result.network);
              EXPECT_EQ(result.network->layers.size(), 1U);
              EXPECT_EQ(output_names(*result.network), Names{"a"});
            }),
            kNotEnoughBytes);
}

TEST(NetworkReader, ADamagedRootYieldsNoKeyAtAll) {
  Bytes model = small_model().bytes();
  model[8 + 4] = 0xFF;  // the first key's length: it now runs into what follows
  model[8 + 5] = 0xFF;
  const std::string printed =
      captured_stderr([&] { EXPECT_EQ(load(model).reason, "input_size: the key is missing"); });
  EXPECT_EQ(printed.rfind(kNotEnoughBytes, 0), 0U) << "the message comes once for each lookup";
}

TEST(NetworkReaderMean, IsNamedAndTakesTheInputsShape) {
  const auto result =
      load(small_model().set("data_mean", tensor({8}, {0, 1, 2, 3, 4, 5, 6, 7})), with_batch(5));
  ASSERT_TRUE(result.network) << result.reason;
  const Blob& mean = *result.network->mean;
  EXPECT_EQ(mean.name, "data_mean");
  EXPECT_EQ(mean.dims, (Dims{1, 2, 2, 2}));
  EXPECT_EQ(mean.count, 8U);
  EXPECT_EQ(values_of(mean), (std::vector<float>{0, 1, 2, 3, 4, 5, 6, 7}));
}

TEST(NetworkReaderMean, MoreValuesThanTheInputHasAreCutOff) {
  const auto result = load(small_model().set("data_mean", tensor({9}, std::vector<float>(9, 1))));
  ASSERT_TRUE(result.network) << result.reason;
  EXPECT_EQ(result.network->mean->count, 8U);
}

TEST(NetworkReaderMean, FewerValuesThanTheInputHasAreRefused) {
  EXPECT_EQ(load(small_model().set("data_mean", tensor({7}, std::vector<float>(7, 1)))).reason,
            "data_mean: holds fewer values than the network input");
  EXPECT_EQ(load(small_model().set("data_mean", tensor({8}, std::vector<float>(7, 1)))).reason,
            "data_mean: the tensor's \"data\" holds fewer values than its \"dims\" ask for");
}

TEST(NetworkReaderMean, IsAbsentWithoutTheKey) {
  const auto result = load(small_model(), with_channel_mean());
  ASSERT_TRUE(result.network);
  EXPECT_EQ(result.network->mean, nullptr);
}

TEST(NetworkReaderMean, IsNeverReadQuantised) {
  const auto result = load(small_model()
                               .set("need_quant", integer(1))
                               .set("data_mean", tensor({8}, {0, 1, 2, 3, 4, 5, 6, 7})));
  ASSERT_TRUE(result.network) << result.reason;
  EXPECT_EQ(result.network->mean->data[7], 7);
}

TEST(NetworkReaderMean, TheChannelMeanFlagAveragesEachChannel) {
  const auto model = small_model().set("data_mean", tensor({8}, {0, 10, 1, 20, 2, 30, 5, 40}));
  EXPECT_EQ(values_of(*load(model, with_channel_mean()).network->mean),
            (std::vector<float>{2, 25, 2, 25, 2, 25, 2, 25}));
}

TEST(NetworkReaderMean, APlanarMeanIsAveragedAsIfItWereInterleaved) {
  const auto model = small_model()
                         .set("layout", text("BCHW"))
                         .set("data_mean", tensor({8}, {0, 10, 1, 20, 2, 30, 5, 40}));
  EXPECT_EQ(values_of(*load(model, with_channel_mean()).network->mean),
            (std::vector<float>{2, 25, 2, 25, 2, 25, 2, 25}));
}

TEST(NetworkReaderMean, TwoToThe31ChannelsWithoutPixelsCostNoTime) {
  const auto result =
      load(ModelBuilder(0, 0x7FFFFFFF).set("data_mean", tensor({0}, {})).set("layers", list({})),
           with_channel_mean());
  ASSERT_TRUE(result.network) << result.reason;
  EXPECT_EQ(result.network->mean->count, 0U);
}

TEST(NetworkReaderCrop, IsTheFirstLayerWhenTheImageIsSmallerThanTheInput) {
  const auto result =
      load(ModelBuilder(256, 1).set("image_size", integer(224)).add_layer(relu("data", "a")),
           with_batch(2));
  ASSERT_TRUE(result.network) << result.reason;
  const Network& network = *result.network;
  ASSERT_EQ(network.layers.size(), 2U);
  const auto* crop = dynamic_cast<CropLayer*>(network.layers[0].get());
  ASSERT_NE(crop, nullptr);
  EXPECT_EQ(crop->type, 5U);
  EXPECT_EQ(crop->row_offset, 16);
  EXPECT_EQ(crop->column_offset, 16);
  EXPECT_EQ(crop->inputs, std::vector<Blob*>{network.input.get()});
  EXPECT_EQ(network.input->consumers, 1U);
  const Blob& cropped = *network.blobs_by_name.at("data");
  EXPECT_EQ(crop->outputs[0], &cropped);
  EXPECT_EQ(cropped.dims, (Dims{2, 224, 224, 1}));
  EXPECT_EQ(cropped.name, "data");
  EXPECT_EQ(cropped.producers, 1U);
  EXPECT_EQ(network.layers[1]->inputs[0], &cropped) << "whoever names the input reads the crop";
  EXPECT_TRUE(network.preprocess);
}

TEST(NetworkReaderCrop, KeepsTheInputsLayout) {
  const auto result = load(ModelBuilder(4, 1)
                               .set("layout", text("BCHW"))
                               .set("image_size", integer(2))
                               .set("layers", list({})));
  ASSERT_TRUE(result.network) << result.reason;
  EXPECT_EQ(result.network->blobs_by_name.at("data")->layout, kPlanar);
}

TEST(NetworkReaderCrop, IsAbsentWhenTheSizesAreEqual) {
  const auto result = load(small_model().set("need_crop", integer(1)));
  ASSERT_TRUE(result.network);
  EXPECT_EQ(result.network->layers.size(), 1U);
  EXPECT_TRUE(result.network->preprocess);
}

TEST(NetworkReaderCrop, NeedCropZeroSuppressesItAndTheMeanSubtraction) {
  auto result = load(ModelBuilder(4, 1)
                         .set("image_size", integer(2))
                         .set("need_crop", integer(0))
                         .set("data_mean", tensor({16}, std::vector<float>(16, 1)))
                         .add_layer(relu("data", "a")));
  ASSERT_TRUE(result.network) << result.reason;
  EXPECT_EQ(result.network->layers.size(), 1U);
  EXPECT_FALSE(result.network->preprocess);
  setup_cpu(*result.network, 0);
  forward_cpu(*result.network, 0);
  EXPECT_EQ(values_of(*result.network->input), std::vector<float>(16, 0.0F));
}

TEST(NetworkReaderCrop, AnImageLargerThanTheInputIsRefused) {
  const auto reason = load(small_model().set("image_size", integer(3))).reason;
  EXPECT_EQ(reason, "image_size: the image is larger than the input");
  EXPECT_TRUE(
      load(small_model().set("image_size", integer(3)).set("need_crop", integer(0))).network);
}

TEST(NetworkReaderQuantised, ConcernsConvolutionAndFullyConnectedTensors) {
  const Bytes weights = Dictionary()
                            .add("dims", list({integer(1), integer(8)}))
                            .add("mean_f", floats({0}))
                            .add("step_f", floats({2}))
                            .add("data", raw_bytes({1, 2, 3, 4, 5, 6, 7, 0xFF}));
  const Bytes record = layer("neuron", {"data"}, {"a"})
                           .add("spec", Dictionary().add("num_output", 1).bytes())
                           .add("weight", weights)
                           .add("are_weights_transposed", 1)
                           .add("has_bias", 0);
  const auto result = load(ModelBuilder(2, 2).set("need_quant", integer(2)).add_layer(record));
  ASSERT_TRUE(result.network) << result.reason;
  const auto& fc = dynamic_cast<FullyConnectLayer&>(*result.network->layers[0]);
  EXPECT_EQ(values_of(*fc.weights), (std::vector<float>{2, 4, 6, 8, 10, 12, 14, -2}));
  EXPECT_EQ(load(ModelBuilder(2, 2).add_layer(record)).reason,
            "layer 0 (neuron): weight: the tensor's \"data\" holds fewer values than its \"dims\" "
            "ask for");
}

TEST(NetworkReaderLayers, AnUnknownClassIsDroppedSilently) {
  const auto model = ModelBuilder(2, 2)
                         .add_layer(layer("crop", {"data"}, {"x"}))
                         .add_layer(relu("data", "a"))
                         .add_layer(layer("no such class", {"nowhere"}, {"y"}));
  std::string errors;
  const std::string printed = captured_stdout([&] {
    errors = captured_stderr([&] {
      const auto result = load(model);
      ASSERT_TRUE(result.network) << result.reason;
      EXPECT_EQ(result.network->layers.size(), 1U);
      EXPECT_EQ(output_names(*result.network), Names{"a"});
    });
  });
  EXPECT_EQ(printed, "");
  EXPECT_EQ(errors, "");
}

TEST(NetworkReaderLayers, AMissingClassIsRefused) {
  const auto record = Dictionary().add("input_layers", texts({"data"}));
  EXPECT_EQ(load(ModelBuilder(2, 2).add_layer(relu("data", "a")).add_layer(record)).reason,
            "layer 1: class: the key is missing");
}

TEST(NetworkReaderLayers, ALayerWithoutAnyInputIsRefusedAfterItsWarning) {
  std::string reason;
  EXPECT_EQ(
      captured_stdout([&] { reason = load(ModelBuilder(2, 2).add_layer(relu("x", "a"))).reason; }),
      "[WARNING]\tReLU still not hit x. TODO need to do something\n");
  EXPECT_EQ(reason, "layer 0 (relu): input_layers: the layer has no input");
  const auto without_key = Dictionary().add("class", "relu");
  EXPECT_EQ(load(ModelBuilder(2, 2).add_layer(without_key)).reason,
            "layer 0 (relu): input_layers: the layer has no input");
}

TEST(NetworkReaderLayers, ALayerWithoutOutputsLoadsAndDoesNothing) {
  const auto result = load(ModelBuilder(2, 2).add_layer(layer("relu", {"data"}, {})));
  ASSERT_TRUE(result.network) << result.reason;
  EXPECT_EQ(result.network->layers.size(), 1U);
  EXPECT_TRUE(result.network->outputs.empty());
  setup_cpu(*result.network, 0);
  forward_cpu(*result.network, 0);
}

TEST(NetworkReaderLayers, ARecordBeforeItsProducerLinksToAPrefixOrIsRefused) {
  std::string printed = captured_stdout([] {
    const auto result = load(
        ModelBuilder(2, 2).add_layer(relu("data_late", "a")).add_layer(relu("data", "data_late")));
    ASSERT_TRUE(result.network) << result.reason;
    EXPECT_EQ(result.network->layers[0]->inputs[0], result.network->input.get());
  });
  EXPECT_EQ(printed, "");
  captured_stdout([] {
    EXPECT_FALSE(
        load(ModelBuilder(2, 2).add_layer(relu("b", "a")).add_layer(relu("data", "b"))).network);
  });
}

TEST(NetworkReaderLayers, TwoLayersWithOneOutputNameShareTheBlob) {
  const auto result =
      load(ModelBuilder(2, 2).add_layer(relu("data", "a")).add_layer(relu("data", "a")));
  ASSERT_TRUE(result.network);
  EXPECT_EQ(result.network->blobs_by_name.at("a")->producers, 2U);
  EXPECT_EQ(result.network->input->consumers, 2U);
  EXPECT_EQ(output_names(*result.network), (Names{"a", "a"}));
}

TEST(NetworkReaderLayers, AnInPlaceChainIsListedOncePerLayer) {
  const auto result =
      load(ModelBuilder(2, 2).add_layer(layer("max", {"data"}, {"a"})).add_layer(relu("a", "a")));
  ASSERT_TRUE(result.network);
  EXPECT_EQ(result.network->blobs_by_name.at("a")->producers, 2U);
  EXPECT_EQ(output_names(*result.network), (Names{"a", "a"}));
  EXPECT_NE(result.network->outputs[0]->data, nullptr);
}

TEST(NetworkReaderLayers, AnEmptyInputNameCatchesEveryUnknownInput) {
  std::string printed = captured_stdout([] {
    const auto result =
        load(ModelBuilder(2, 2).set("input_name", text("")).add_layer(relu("anything", "a")));
    ASSERT_TRUE(result.network) << result.reason;
    EXPECT_EQ(result.network->layers[0]->inputs[0], result.network->input.get());
  });
  EXPECT_EQ(printed, "");
}

TEST(NetworkReaderLayers, TheReasonNamesTheLayerByItsPlaceInTheFile) {
  const auto pool = layer("pool", {"data"}, {"p"}).add("psize", 2).add("mode", "max");
  EXPECT_EQ(load(ModelBuilder(2, 2)
                     .add_layer(layer("unknown", {}, {}))
                     .add_layer(relu("data", "a"))
                     .add_layer(pool))
                .reason,
            "layer 2 (pool): stride: the key is missing");
}

// A table of this test's own. "picky" layers are built when the Blob "data_ready" is known,
// "maker" layers make it; every call is noted through the network's labels.
struct PickyLayer : BaseLayer {};

std::unique_ptr<BaseLayer> made(const Record& record, const char* what) {
  record.state->network->add_label(std::string(what) + std::string(need_text(record, "id")));
  auto layer = std::make_unique<PickyLayer>();
  layer->type = static_cast<std::uint32_t>(get_int(record, "number", 0));
  return layer;
}

std::unique_ptr<BaseLayer> read_maker(const Record& record, const LayerRow&) {
  record.state->network->add_blob(Shape{}, "ready");
  return made(record, "made ");
}

std::unique_ptr<BaseLayer> read_picky(const Record& record, const LayerRow&) {
  Network& network = *record.state->network;
  if (network.blobs_by_name.count("ready") != 0) return made(record, "made ");
  network.add_label("tried " + std::string(need_text(record, "id")));
  return nullptr;
}

Fit always_fits(const BaseLayer&) {
  return {};
}

Fit never_fits(const BaseLayer&) {
  return {"it never fits"};
}

const LayerRow kTestRows[] = {{"maker", 1, "Maker", read_maker, nullptr, always_fits},
                              {"picky", 2, "Picky", read_picky, nullptr, always_fits},
                              {"misfit", 3, "Misfit", read_maker, nullptr, never_fits}};

Bytes numbered(const char* keyword, const char* id) {
  return Dictionary().add("class", keyword).add("id", id);
}

struct TableRun {
  explicit TableRun(const std::vector<Bytes>& records) {
    state.network = &network;
    const Bytes bytes = list(records);
    read_layers(root_tag(bytes.data(), bytes.size()), kTestRows, state);
    for (const char* label : network.labels) calls.emplace_back(label);
  }
  Network network;
  LoadState state;
  Names calls;
};

TEST(ReadLayers, PendingRecordsAreTriedAgainInOrderBeforeEachLaterRecord) {
  const TableRun run({numbered("picky", "1"), numbered("picky", "2"), numbered("maker", "3"),
                      numbered("picky", "4")});
  EXPECT_EQ(run.calls, (Names{"tried 1", "tried 1", "tried 2", "tried 1", "tried 2", "made 3",
                              "made 1", "made 2", "made 4"}));
  EXPECT_EQ(run.network.layers.size(), 4U);
}

TEST(ReadLayers, RecordsStillPendingAfterTheLastOneAreDroppedSilently) {
  std::string printed = captured_stderr([] {
    const TableRun run({numbered("picky", "1"), numbered("maker", "2")});
    EXPECT_EQ(run.calls, (Names{"tried 1", "tried 1", "made 2"}));
    EXPECT_EQ(run.network.layers.size(), 1U);
    EXPECT_FALSE(run.state.failed);
  });
  EXPECT_EQ(printed, "");
}

TEST(ReadLayers, ARecordIsReadOnceMoreOnlyUntilItIsBuilt) {
  const TableRun run({numbered("picky", "1"), numbered("maker", "2"), numbered("maker", "3"),
                      numbered("maker", "4")});
  EXPECT_EQ(run.calls, (Names{"tried 1", "tried 1", "made 2", "made 1", "made 3", "made 4"}));
}

TEST(ReadLayers, ALayerThatDoesNotFitFailsTheLoadAndEndsTheWalk) {
  const TableRun run({numbered("maker", "0"), numbered("misfit", "1"), numbered("maker", "2")});
  EXPECT_EQ(run.calls, (Names{"made 0", "made 1"}));
  EXPECT_EQ(run.state.reason, "layer 1 (misfit): it never fits");
}

TEST(ReadLayers, APendingRecordIsNamedByItsOwnPlace) {
  const TableRun run(
      {Dictionary().add("class", "picky").add("id", "0").add("number", raw_bytes({1})),
       numbered("maker", "1"), numbered("maker", "2")});
  EXPECT_EQ(run.state.reason, "layer 0 (picky): number: the value is too short");
}

TEST(LoadNetwork, ReadsTheModelOfAFile) {
  const TemporaryFile file(small_model().bytes());
  std::string printed = captured_stderr([&] {
    const auto result = load_network(file.path(), with_batch(2));
    ASSERT_TRUE(result.network) << result.reason;
    EXPECT_EQ(result.network->input->dims[0], 2U);
  });
  EXPECT_EQ(printed, "");
}

TEST(LoadNetwork, SaysWhichFileItCouldNotParse) {
  const TemporaryFile damaged(small_model().remove("layers").bytes());
  for (const std::string& path : {std::string("/no/such/model"), std::string(damaged.path())}) {
    EXPECT_EQ(captured_stderr([&] { EXPECT_FALSE(load_network(path.c_str(), {}).network); }),
              "Fail to parse model (" + path + ")\n");
  }
  EXPECT_EQ(captured_stderr([&] { EXPECT_FALSE(load_network(nullptr, {}).network); }),
            "Fail to parse model ()\n");
}

TEST(LoadNetwork, TheContainersMessageComesBeforeTheLoaders) {
  Bytes model = small_model().bytes();
  model[8 + 5] = 0xFF;
  const TemporaryFile file(model);
  const std::string printed =
      captured_stderr([&] { EXPECT_FALSE(load_network(file.path(), {}).network); });
  EXPECT_EQ(printed.rfind(kNotEnoughBytes, 0), 0U);
  const std::string last = std::string("Fail to parse model (") + file.path() + ")\n";
  EXPECT_EQ(printed.substr(printed.size() - last.size()), last);
}

TEST(LoadNetwork, AFileThatIsTooShortGivesItsReason) {
  Bytes model = small_model().bytes();
  model.pop_back();
  const TemporaryFile file(model);
  captured_stderr([&] {
    EXPECT_EQ(load_network(file.path(), {}).reason,
              "the file cannot be read, or is shorter than its header says");
  });
}

// These would take minutes or more if reading were worse than linear.
TEST(NetworkReaderWork, TwentyThousandUnknownClassesLoad) {
  ModelBuilder model(2, 2);
  std::vector<Bytes> records(20000, layer("unknown", {"data"}, {"x"}).bytes());
  records.push_back(relu("data", "a"));
  const auto result = load(model.set("layers", list(records)));
  ASSERT_TRUE(result.network) << result.reason;
  EXPECT_EQ(result.network->layers.size(), 1U);
}

TEST(NetworkReaderWork, TwentyThousandLayersLoadAndAreSetUp) {
  std::vector<Bytes> records;
  std::string from = "data";
  for (int i = 0; i < 20000; ++i) {
    const std::string to = "b" + std::to_string(i);
    records.push_back(layer("relu", {from}, {to}));
    from = to;
  }
  const auto result = load(ModelBuilder(2, 2).set("layers", list(records)));
  ASSERT_TRUE(result.network) << result.reason;
  setup_cpu(*result.network, 0);
  result.network->input->data[0] = 5;
  forward_cpu(*result.network, 0);
  EXPECT_EQ(result.network->outputs.at(0)->data[0], 5);
}

TEST(NetworkReaderWork, NamesOfAMegabyteLoad) {
  const std::string name(std::size_t{1} << 20, 'x');
  const std::string other = "data" + name;
  const auto result = load(ModelBuilder(2, 2)
                               .add_layer(relu(other.c_str(), name.c_str()))
                               .add_layer(relu((name + "y").c_str(), "a"))
                               .set("label_names", texts({name})));
  ASSERT_TRUE(result.network) << result.reason;
  EXPECT_EQ(result.network->layers[0]->inputs[0]->name, "data");
  EXPECT_EQ(result.network->layers[1]->inputs[0]->name, name);
}

TEST(NetworkReaderWork, ThePendingListOfOnePassCostsNothingWhenNoRecordPends) {
  const TableRun run(std::vector<Bytes>(20000, numbered("maker", "1")));
  EXPECT_EQ(run.calls.size(), 20000U) << "each reader is called once";
}

}  // namespace
}  // namespace ravu::test
