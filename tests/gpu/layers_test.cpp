// Every layer class alone on the provider, compared with the processor: random sizes, strides,
// paddings, groups, planes that are not square, batches of 1 to 3.
#include <gtest/gtest.h>

#include <random>

#include "gpu/modes.h"
#include "support/records.h"

namespace ravu::test {
namespace {

// Seeded small numbers.
class Draw {
 public:
  explicit Draw(unsigned seed) : generator_(seed) {}

  int operator()(int least, int most) {
    return least + static_cast<int>(generator_() % static_cast<unsigned>(most - least + 1));
  }

  // A batch of 1 to 3 images with this many channels, planes of any sides within the limits.
  Dims input(int channels, int least, int most) {
    return {size(1, 3), size(least, most), size(least, most), static_cast<std::uint32_t>(channels)};
  }

 private:
  std::uint32_t size(int least, int most) {
    return static_cast<std::uint32_t>((*this)(least, most));
  }

  std::mt19937 generator_;
};

ModelBuilder model_with(const Bytes& record, int channels, int size = 8) {
  return ModelBuilder(size, channels).add_layer(record);
}

std::string text_of(const Dims& dims) {
  std::string text;
  for (const std::uint32_t dim : dims) text += (text.empty() ? "" : "x") + std::to_string(dim);
  return text;
}

TEST(GpuLayer, ConvolutionAgrees) {
  Draw draw(1);
  for (int i = 0; i < 12; ++i) {
    const int ksize = draw(1, 5);
    const ConvKeys keys{.inputs = draw(1, 9),
                        .kernels = draw(1, 20),
                        .ksize = ksize,
                        .stride = draw(1, 3),
                        .padding = draw(0, ksize / 2),
                        .bias = draw(0, 1) == 1};
    const Dims input = draw.input(keys.inputs, 5, 14);
    expect_modes_agree(model_with(conv_record("data", "c", keys), keys.inputs), input,
                       text_of(input) + " kernel " + std::to_string(ksize));
  }
}

TEST(GpuLayer, PointwiseConvolutionAgrees) {
  Draw draw(2);
  for (int i = 0; i < 6; ++i) {
    const ConvKeys keys{.inputs = draw(1, 40), .kernels = draw(1, 70), .ksize = 1};
    const Dims input = draw.input(keys.inputs, 1, 17);
    expect_modes_agree(model_with(conv_record("data", "c", keys), keys.inputs), input,
                       text_of(input));
  }
}

TEST(GpuLayer, GroupedConvolutionAgrees) {
  Draw draw(3);
  for (int i = 0; i < 8; ++i) {
    const int groups = draw(2, 4);
    const ConvKeys keys{.inputs = draw(1, 5),
                        .kernels = draw(1, 6),
                        .stride = draw(1, 2),
                        .padding = draw(0, 1),
                        .bias = draw(0, 1) == 1};
    const int channels = keys.inputs * groups;
    const Dims input = draw.input(channels, 4, 10);
    expect_modes_agree(model_with(group_record("data", "c", groups, keys), channels), input,
                       text_of(input) + " groups " + std::to_string(groups));
  }
}

TEST(GpuLayer, DepthwiseConvolutionAgrees) {
  Draw draw(4);
  for (int i = 0; i < 4; ++i) {
    const int channels = draw(3, 18);
    const ConvKeys keys{.inputs = 1, .kernels = 1, .stride = draw(1, 2), .padding = 1};
    const Dims input = draw.input(channels, 4, 12);
    expect_modes_agree(model_with(group_record("data", "c", channels, keys), channels), input,
                       text_of(input));
  }
}

TEST(GpuLayer, FullyConnectedAgrees) {
  Draw draw(5);
  for (int i = 0; i < 8; ++i) {
    const int channels = draw(1, 9);
    const int size = draw(1, 6);
    const Dims input{static_cast<std::uint32_t>(draw(1, 3)), static_cast<std::uint32_t>(size),
                     static_cast<std::uint32_t>(size), static_cast<std::uint32_t>(channels)};
    const Bytes record = neuron_record("data", "f", size * size * channels, draw(2, 50));
    expect_modes_agree(model_with(record, channels, size), input, text_of(input));
  }
}

TEST(GpuLayer, BatchNormalisationAgrees) {
  Draw draw(6);
  for (int i = 0; i < 4; ++i) {
    const int channels = draw(1, 12);
    const Dims input = draw.input(channels, 2, 7);
    expect_modes_agree(model_with(bn_record("data", "b", channels), channels), input,
                       text_of(input));
  }
}

TEST(GpuLayer, ScaleAgreesWhereverItsTensorsRepeat) {
  const Dims input{2, 3, 3, 4};
  for (const std::vector<std::int32_t>& dims : {std::vector<std::int32_t>{1, 1, 1, 4},
                                                {1, 1, 1, 1},
                                                {1, 1, 1, 2},
                                                {1, 1, 3, 4},
                                                {1, 3, 3, 4},
                                                {2, 3, 3, 4}}) {
    for (const bool bias : {false, true}) {
      expect_modes_agree(model_with(scale_record("data", "s", dims, bias), 4, 3), input,
                         std::to_string(dims[0]) + " " + std::to_string(dims[3]));
    }
  }
}

TEST(GpuLayer, APlanarScaleAgrees) {
  ModelBuilder model(2, 3);
  model.set("layout", text("BCHW"));
  model.add_layer(scale_record("data", "s", {1, 2, 2, 3}, true));
  expect_modes_agree(model, {1, 2, 2, 3}, "planar scale");
}

TEST(GpuLayer, ActivationsAgree) {
  Draw draw(7);
  for (int i = 0; i < 3; ++i) {
    const int channels = draw(1, 9);
    const Dims input = draw.input(channels, 2, 7);
    expect_modes_agree(model_with(relu_record("data", "r"), channels), input, "relu");
    expect_modes_agree(model_with(relu_record("data", "r", 0.3F), channels), input, "leaky relu");
    expect_modes_agree(model_with(prelu_record("data", "p", channels), channels), input, "prelu");
    expect_modes_agree(model_with(power_record("data", "p", 1, 2.5F, 0), channels), input, "power");
  }
}

TEST(GpuLayer, SumsAgree) {
  Draw draw(8);
  for (int inputs = 2; inputs <= 4; ++inputs) {
    ModelBuilder model(8, 3);
    std::vector<std::string> names{"data"};
    for (int i = 1; i < inputs; ++i) {
      names.push_back("b" + std::to_string(i));
      model.add_layer(bn_record("data", names.back(), 3, static_cast<unsigned>(i)));
    }
    model.add_layer(eltwise_record(names, "e", "sum"));
    expect_modes_agree(model, draw.input(3, 2, 6), std::to_string(inputs) + " terms");
  }
}

TEST(GpuLayer, PoolingAgrees) {
  Draw draw(9);
  for (int i = 0; i < 10; ++i) {
    const int channels = draw(1, 9);
    const int window = draw(1, 4);
    const Dims input = draw.input(channels, 4, 12);
    for (const char* mode : {"max", "avg"}) {
      expect_modes_agree(
          model_with(pool_record("data", "p", mode, window, draw(1, window)), channels), input,
          text_of(input) + " window " + std::to_string(window));
    }
  }
}

TEST(GpuLayer, LocalResponseNormalisationAgreesForOddSizes) {
  Draw draw(10);
  for (const int size : {1, 3, 5, 7}) {
    const int channels = draw(1, 12);
    const Dims input = draw.input(channels, 2, 6);
    expect_modes_agree(model_with(lrn_record("data", "l", size), channels), input, text_of(input));
  }
}

TEST(GpuLayer, L2NormalisationAgreesWhereTheChannelsShareTheirScale) {
  Draw draw(11);
  for (int i = 0; i < 4; ++i) {
    const int channels = draw(2, 12);
    const int side = draw(2, 6);
    const Dims input = draw.input(channels, side, side);
    expect_modes_agree(model_with(norm_record("data", "n", false, true, {20}), channels, side),
                       input, text_of(input));
  }
}

TEST(GpuLayer, SoftmaxAgrees) {
  Draw draw(12);
  for (int i = 0; i < 6; ++i) {
    const int channels = draw(1, 12);
    const Dims input = draw.input(channels, i % 2 == 0 ? 1 : 2, i % 2 == 0 ? 1 : 6);
    if (channels == 1 && input[1] == 1) continue;
    expect_modes_agree(model_with(layer("max", {"data"}, {"s"}), channels), input, text_of(input));
  }
  expect_modes_agree(model_with(layer("max", {"data"}, {"s"}), 1), {2, 3, 5, 1}, "a plane");
}

TEST(GpuLayer, ConcatenationAgrees) {
  Draw draw(13);
  for (int i = 0; i < 4; ++i) {
    const int channels = draw(1, 7);
    const int side = draw(2, 6);
    ModelBuilder model(side, channels);
    model.add_layer(
        conv_record("data", "c", {.inputs = channels, .kernels = draw(1, 5), .ksize = 1}));
    model.add_layer(layer("concat", {"c", "data", "c"}, {"j"}));
    const Dims input = draw.input(channels, side, side);
    expect_modes_agree(model, input, text_of(input));
  }
}

TEST(GpuLayer, ConcatenationOfFlattenedMapsAgrees) {
  for (const std::uint32_t batch : {1U, 2U}) {
    ModelBuilder model(6, 3);
    model.add_layer(pool_record("data", "p", "max", 2, 2));
    model.add_layer(layer("flatten", {"data"}, {"f1"}));
    model.add_layer(layer("flatten", {"p"}, {"f2"}));
    model.add_layer(layer("concat", {"f1", "f2"}, {"j"}));
    expect_modes_agree(model, {batch, 6, 6, 3}, "batch " + std::to_string(batch));
  }
}

TEST(GpuLayer, TheCropAgrees) {
  ModelBuilder model(9, 2);
  model.set("image_size", integer(5));
  model.add_layer(bn_record("data", "b", 2));
  expect_modes_agree(model, {2, 9, 9, 2}, "crop");
}

TEST(GpuLayer, ReshapeAgrees) {
  ModelBuilder model(4, 6);
  model.add_layer(reshape_record("data", "r", {-1, 8, 6, 2}));
  model.add_layer(layer("max", {"r"}, {"s"}));
  for (const std::uint32_t batch : {1U, 3U}) expect_modes_agree(model, {batch, 4, 4, 6}, "reshape");
}

TEST(GpuLayer, PermuteAgreesForOneImage) {
  for (const std::vector<std::int32_t>& order : {std::vector<std::int32_t>{0, 1, 2, 3},
                                                 {2, 0, 1, 3},
                                                 {1, 0, 2, 3},
                                                 {0, 2, 1, 3},
                                                 {2, 1, 0, 3},
                                                 {3, 1, 0, 2}}) {
    ModelBuilder model(4, 3);
    model.add_layer(permute_record("data", "p", /*need_permute=*/true, order));
    model.add_layer(bn_record("p", "b", 3));
    expect_modes_agree(model, {1, 4, 4, 3}, "order of " + std::to_string(order[0]));
  }
}

TEST(GpuLayer, PriorBoxesAgree) {
  const auto model_of = [](const PriorKeys& keys) {
    return model_with(prior_record({"data", "data"}, "p", keys), 2, 5);
  };
  expect_modes_agree(model_of({}), {1, 5, 5, 2}, "one size");
  expect_modes_agree(model_of({.min_sizes = {2, 3},
                               .max_sizes = {4, 5},
                               .ratios = {2, 1, 0.5F, 3},
                               .num_priors = 10,
                               .clip = true}),
                     {1, 5, 5, 2}, "all lists");
  expect_modes_agree(model_of({.img_h = 40, .img_w = 60, .step_h = 8, .step_w = 12, .flip = true}),
                     {1, 5, 5, 2}, "a given image and given steps");
  expect_modes_agree(model_of({.variances = {0.1F, 0.1F, 0.2F, 0.2F}}), {1, 5, 5, 2},
                     "four variances and one box in a cell");
}

TEST(GpuLayer, DetectionOutputAgrees) {
  Draw draw(14);
  for (const int code_type : {1, 2, 3}) {
    for (const std::uint32_t batch : {1U, 2U}) {
      for (const bool share : {true, false}) {
        ModelBuilder model(4, 6);
        const int classes = draw(2, 4);
        constexpr int kBoxes = 2;  // of a cell, one around the other
        const int locations = kBoxes * (share ? 4 : 4 * classes);
        model.add_layer(
            conv_record("data", "loc", {.inputs = 6, .kernels = locations, .ksize = 1}, 3));
        model.add_layer(
            conv_record("data", "conf", {.inputs = 6, .kernels = kBoxes * classes, .ksize = 1}, 5));
        model.add_layer(layer("max", {"conf"}, {"prob"}));
        model.add_layer(
            prior_record({"data", "data"}, "p", {.min_sizes = {2, 3}, .num_priors = kBoxes}));
        model.add_layer(detection_record({"loc", "prob", "p"}, "d",
                                         {.classes = classes,
                                          .keep_top_k = draw(3, 40),
                                          .code_type = code_type,
                                          .nms = draw(0, 1) == 0 ? 0.45F : 0.7F,
                                          .eta = draw(0, 1) == 0 ? 1.0F : 0.8F,
                                          .share = share,
                                          .encoded = draw(0, 1) == 1}));
        expect_modes_agree(model, {batch, 4, 4, 6},
                           "code " + std::to_string(code_type) + " batch " + std::to_string(batch));
      }
    }
  }
}

}  // namespace
}  // namespace ravu::test
