// One function per layer: its record, then its step of the evaluation.
#include "support/naive_network.h"

#include <cmath>
#include <utility>

#include "support/reference.h"

namespace ravu::test {
namespace {

constexpr float kVariance = 0.1F;
constexpr float kNmsThreshold = 0.45F;

std::vector<float> narrowed(const reference::Sums& sums) {
  return {sums.values.begin(), sums.values.end()};
}

Tensor like(const Tensor& shape, std::vector<float> values) {
  return {shape.batch, shape.height, shape.width, shape.channels, std::move(values)};
}

Bytes vector_tensor(const std::vector<float>& values) {
  return tensor({1, 1, 1, static_cast<std::int32_t>(values.size())}, values);
}

Dictionary conv_keys(Dictionary record, const ConvOptions& o, int group_channels,
                     const std::vector<float>& weights, const std::vector<float>& bias) {
  return record
      .add(
          "spec",
          Dictionary().add("num_kernels", o.kernels).add("stride", o.stride).add("ksize", o.kernel))
      .add("padding", o.pad)
      .add("has_bias", 1)
      .add("kernels", tensor({o.kernels, o.kernel, o.kernel, group_channels}, weights))
      .add("bias", vector_tensor(bias));
}

reference::Image image_of(const Tensor& t) {
  const auto size = [](int n) { return static_cast<std::size_t>(n); };
  return {size(t.batch), size(t.height), size(t.width), size(t.channels)};
}

}  // namespace

Tensor random_tensor(int batch, int height, int width, int channels, unsigned seed) {
  const auto count = static_cast<std::size_t>(batch * height * width * channels);
  return {batch, height, width, channels, random_values(count, seed)};
}

NaiveNetwork::NaiveNetwork(int size, int channels)
    : model_(size, channels), channels_{{"data", channels}}, input_size_(size) {}

// Sums of `summed` terms keep about the size of what they are made of.
std::vector<float> NaiveNetwork::weights(int count, int summed) {
  auto values = random_values(static_cast<std::size_t>(count), ++seed_);
  for (float& value : values) value *= std::sqrt(4.0F / static_cast<float>(summed));
  return values;
}

void NaiveNetwork::add(const Bytes& record, Name to, int channels,
                       std::function<void(Tensors&)> step) {
  model_.add_layer(record);
  channels_[to] = channels;
  steps_.push_back(std::move(step));
}

void NaiveNetwork::mean_image() {
  const int channels = channels_of("data");
  const auto mean = weights(input_size_ * input_size_ * channels, 4);
  model_.set("data_mean", tensor({1, input_size_, input_size_, channels}, mean));
  steps_.emplace_back([mean](Tensors& blobs) {
    auto& values = blobs["data"].values;
    for (std::size_t i = 0; i < values.size(); ++i) values[i] -= mean[i % mean.size()];
  });
}

// The record's sizes hold, whatever the input has become: images follow each other in steps of the
// loaded size.
void NaiveNetwork::crop_to(int size) {
  model_.set("image_size", integer(size));
  const int from = input_size_;
  steps_.emplace_back([size, from](Tensors& blobs) {
    const Tensor& input = blobs["data"];
    const Tensor loaded{input.batch, from, from, input.channels};
    const auto offset = static_cast<std::size_t>((from - size) / 2);
    blobs["data"] = {
        input.batch, size, size, input.channels,
        reference::crop(image_of(loaded), offset, static_cast<std::size_t>(size), input.values)};
  });
}

void NaiveNetwork::conv(Name from, Name to, const ConvOptions& o) {
  const int group_channels = channels_of(from) / o.groups;
  const int patch = o.kernel * o.kernel * group_channels;
  std::vector<std::vector<float>> kernels;
  std::vector<std::vector<float>> bias;
  for (int g = 0; g < o.groups; ++g) {
    kernels.push_back(weights(o.kernels * patch, patch));
    bias.push_back(weights(o.kernels, 16));
  }
  Dictionary record = layer(o.groups == 1 ? "conv" : "gconv", {from}, {to});
  if (o.groups == 1) {
    record = conv_keys(record, o, group_channels, kernels[0], bias[0]);
  } else {
    std::vector<Bytes> groups;
    for (std::size_t g = 0; g < kernels.size(); ++g) {
      groups.push_back(conv_keys(Dictionary(), o, group_channels, kernels[g], bias[g]));
    }
    record.add("layers_count", o.groups).add("layers", list(groups));
  }
  add(record, to, o.groups * o.kernels, [=](Tensors& blobs) {
    const Tensor& x = blobs[from];
    const reference::Conv c{x.batch,   x.height, x.width,  x.channels, o.groups,
                            o.kernels, o.kernel, o.stride, o.pad};
    blobs[to] = {x.batch, reference::conv_record_size(x.height, c),
                 reference::conv_record_size(x.width, c), o.groups * o.kernels,
                 narrowed(reference::convolve(c, x.values, kernels, bias))};
  });
}

// Image n starts at n x features, whatever the input's dims say.
void NaiveNetwork::fully_connected(Name from, Name to, int features, int outputs) {
  const auto matrix = weights(features * outputs, features);
  const auto bias = weights(outputs, 16);
  const auto record = layer("neuron", {from}, {to})
                          .add("spec", Dictionary().add("num_output", outputs))
                          .add("weight", tensor({features, outputs}, matrix))
                          .add("has_bias", 1)
                          .add("bias", vector_tensor(bias));
  add(record, to, outputs, [=](Tensors& blobs) {
    const Tensor& x = blobs[from];
    blobs[to] = {
        x.batch, 1, 1, outputs,
        narrowed(reference::fully_connect(x.batch, features, outputs, x.values, matrix, bias))};
  });
}

void NaiveNetwork::batch_norm(Name from, Name to) {
  const int channels = channels_of(from);
  const auto mean = weights(channels, 16);
  auto divisor = weights(channels, 16);
  for (float& value : divisor) value += 1.5F;
  const auto record =
      layer("bn", {from}, {to}).add("mean", vector_tensor(mean)).add("var", vector_tensor(divisor));
  add(record, to, channels, [=](Tensors& blobs) {
    const Tensor& x = blobs[from];
    blobs[to] = like(x, reference::batch_norm(x.values, mean, divisor));
  });
}

void NaiveNetwork::scale(Name from, Name to) {
  const int channels = channels_of(from);
  const auto scales = weights(channels, 2);
  const auto bias = weights(channels, 16);
  const auto record = layer("scale", {from}, {to})
                          .add("has_bias", 1)
                          .add("scales", vector_tensor(scales))
                          .add("bias", vector_tensor(bias));
  add(record, to, channels, [=](Tensors& blobs) {
    const Tensor& x = blobs[from];
    blobs[to] = like(x, reference::scale(x.values, scales, bias));
  });
}

void NaiveNetwork::relu(Name from, Name to, float slope) {
  const auto record = layer("relu", {from}, {to}).add("negative_slope", slope);
  add(record, to, channels_of(from), [=](Tensors& blobs) {
    const Tensor& x = blobs[from];
    blobs[to] = like(x, reference::relu(x.values, slope));
  });
}

void NaiveNetwork::prelu(Name from, Name to) {
  const int channels = channels_of(from);
  const auto slopes = weights(channels, 16);
  const auto record =
      layer("prelu", {from}, {to}).add("channel_shared", 0).add("filler", vector_tensor(slopes));
  add(record, to, channels, [=](Tensors& blobs) {
    const Tensor& x = blobs[from];
    blobs[to] = like(x, reference::prelu(x.values, slopes, slopes.size()));
  });
}

void NaiveNetwork::power_in_place(Name blob, float power, float scale, float shift) {
  const auto record =
      layer("power", {blob}, {blob}).add("power", power).add("scale", scale).add("shift", shift);
  add(record, blob, channels_of(blob), [=](Tensors& blobs) {
    const Tensor& x = blobs[blob];
    blobs[blob] =
        like(x, reference::power(x.values, x.values, /*shared=*/true, scale, shift, power));
  });
}

void NaiveNetwork::sum(Name a, Name b, Name to) {
  const auto record = layer("eltwise", {a, b}, {to}).add("operation", "sum");
  add(record, to, channels_of(a), [=](Tensors& blobs) {
    const Tensor& x = blobs[a];
    blobs[to] =
        like(x, reference::weighted_sum({x.values, blobs[b].values}, {1, 1}, x.values.size()));
  });
}

void NaiveNetwork::pool(Name from, Name to, const PoolOptions& o) {
  const auto record = layer("pool", {from}, {to})
                          .add("psize", o.kernel)
                          .add("stride", o.stride)
                          .add("mode", o.maximum ? "max" : "avg")
                          .add("paddingW", o.pad)
                          .add("paddingH", o.pad);
  add(record, to, channels_of(from), [=](Tensors& blobs) {
    const Tensor& x = blobs[from];
    const reference::Pooling p{x.batch,  x.height, x.width, x.channels,
                               o.kernel, o.stride, o.pad,   o.pad};
    blobs[to] = {x.batch, reference::pooled_size(x.height, o.kernel, o.stride, o.pad),
                 reference::pooled_size(x.width, o.kernel, o.stride, o.pad), x.channels,
                 reference::pool(p, o.maximum, x.values)};
  });
}

void NaiveNetwork::lrn(Name from, Name to, int size) {
  constexpr float kAlpha = 0.5F;
  constexpr float kBeta = 0.75F;
  constexpr float kK = 1.0F;
  const auto record = layer("normalize", {from}, {to})
                          .add("size", size)
                          .add("alpha", kAlpha)
                          .add("beta", kBeta)
                          .add("k", kK);
  add(record, to, channels_of(from), [=](Tensors& blobs) {
    const Tensor& x = blobs[from];
    blobs[to] = like(x, reference::lrn(x.channels, size, kAlpha, kBeta, kK, x.values).output);
  });
}

void NaiveNetwork::l2_norm(Name from, Name to, float factor) {
  const auto record = layer("norm", {from}, {to})
                          .add("across_spatial", 0)
                          .add("channel_shared", 1)
                          .add("scale", vector_tensor({factor}));
  add(record, to, channels_of(from), [=](Tensors& blobs) {
    const Tensor& x = blobs[from];
    std::vector<float> squares(x.values.size());
    std::vector<float> norms(static_cast<std::size_t>(x.batch * x.pixels()));
    const reference::Normalize n{x.batch, x.pixels(), x.channels, /*channel_shared=*/true};
    blobs[to] = like(x, reference::normalize(n, x.values, {factor}, squares, norms));
  });
}

void NaiveNetwork::softmax(Name from, Name to) {
  add(layer("max", {from}, {to}), to, channels_of(from), [=](Tensors& blobs) {
    const Tensor& x = blobs[from];
    const int length = x.channels != 1 ? x.channels : x.pixels();
    blobs[to] = like(x, reference::softmax(x.values, static_cast<std::size_t>(length)));
  });
}

void NaiveNetwork::concat(Name a, Name b, Name to) {
  const int channels = channels_of(a) + channels_of(b);
  add(layer("concat", {a, b}, {to}), to, channels, [=](Tensors& blobs) {
    const Tensor& x = blobs[a];
    const Tensor& y = blobs[b];
    const auto pixels = static_cast<std::size_t>(x.batch * x.pixels());
    blobs[to] = {x.batch, x.height, x.width, x.channels + y.channels,
                 reference::concat({x.values, y.values},
                                   {image_of(x).channels, image_of(y).channels}, pixels)};
  });
}

void NaiveNetwork::flatten(Name from, Name to) {
  add(layer("flatten", {from}, {to}), to, channels_of(from), [=](Tensors& blobs) {
    const Tensor& x = blobs[from];
    blobs[to] = {x.batch, 1, 1, x.pixels() * x.channels, x.values};
  });
}

void NaiveNetwork::reshape_to_rows(Name from, Name to, int rows, int channels) {
  const auto record = layer("reshape", {from}, {to})
                          .add("constant_count", 0)
                          .add("inferred_axis", -1)
                          .add("dims", small_ints({-1, rows, 1, channels}));
  add(record, to, channels, [=](Tensors& blobs) {
    blobs[to] = {blobs[from].batch, rows, 1, channels, blobs[from].values};
  });
}

void NaiveNetwork::transpose(Name from, Name to) {
  const auto record = layer("permute", {from}, {to})
                          .add("need_permute", 1)
                          .add("permute_order", small_ints({2, 0, 1, 3}));
  add(record, to, channels_of(from), [=](Tensors& blobs) {
    const Tensor& x = blobs[from];
    blobs[to] = like(x, reference::permute(image_of(x), {2, 0, 1}, x.values));
  });
}

void NaiveNetwork::priors(Name map, Name to, const PriorOptions& o) {
  const auto record = layer("priorbox", {map, "data"}, {to})
                          .add("offset", 0.5F)
                          .add("flip", 0)
                          .add("num_priors", o.per_cell)
                          .add("clip", 0)
                          .add("img_h", 0)
                          .add("img_w", 0)
                          .add("step_h", 0)
                          .add("step_w", 0)
                          .add("aspect_ratios", small_floats(o.aspect_ratios))
                          .add("variance", small_floats({kVariance}))
                          .add("min_size", small_floats(o.min_sizes))
                          .add("max_size", small_floats(o.max_sizes));
  add(record, to, 0, [=](Tensors& blobs) {
    const Tensor& x = blobs[map];
    const Tensor& image = blobs["data"];
    reference::PriorBoxes p{
        x.height, x.width,     image.height, image.width,     0,          0, 0.5F,
        false,    o.min_sizes, o.max_sizes,  o.aspect_ratios, {kVariance}};
    blobs[to] = {1, 2, 1, x.pixels() * o.per_cell * 4, reference::prior_boxes(p, o.per_cell)};
  });
}

void NaiveNetwork::detections(Name locations, Name scores, Name priors, Name to,
                              const DetectionOptions& o) {
  const auto record = layer("detectionout", {locations, scores, priors}, {to})
                          .add("num_classes", o.classes)
                          .add("share_location", 1)
                          .add("num_loc_classes", 1)
                          .add("background_label_id", 0)
                          .add("code_type", 2)
                          .add("variance_encoded_in_target", 0)
                          .add("top_k", -1)
                          .add("keep_top_k", o.keep_top_k)
                          .add("confidence_threshold", o.confidence_threshold)
                          .add("nms_threshold", kNmsThreshold)
                          .add("eta", 1.0F);
  add(record, to, 7, [=](Tensors& blobs) {
    blobs[to] = {1, o.keep_top_k, 7, 1,
                 naive_detections(o, blobs[locations], blobs[scores], blobs[priors])};
  });
}

std::vector<float> naive_detections(const DetectionOptions& o, const Tensor& locations,
                                    const Tensor& scores, const Tensor& priors) {
  const reference::Detection d{.images = locations.batch,
                               .priors = o.priors,
                               .classes = o.classes,
                               .loc_classes = 1,
                               .share_location = true,
                               .code_type = 2,
                               .variance_encoded = false,
                               .keep_top_k = o.keep_top_k,
                               .top_k = -1,
                               .background = 0,
                               .confidence_threshold = o.confidence_threshold,
                               .nms_threshold = kNmsThreshold,
                               .eta = 1.0F};
  return reference::detection_output(d, locations.values, scores.values, priors.values,
                                     static_cast<std::size_t>(o.keep_top_k) * 7);
}

Tensors NaiveNetwork::evaluate(const Tensor& input) const {
  Tensors blobs{{"data", input}};
  for (const auto& step : steps_) step(blobs);
  return blobs;
}

}  // namespace ravu::test
