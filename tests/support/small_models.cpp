// One function per model. They are kept to a few kilobytes, since every byte gets damaged.
#include "support/small_models.h"

namespace ravu::test {
namespace {

Bytes spec(std::initializer_list<std::pair<const char*, int>> keys) {
  Dictionary dictionary;
  for (const auto& [key, value] : keys) dictionary.add(key, value);
  return dictionary;
}

Bytes random_tensor(const std::vector<std::int32_t>& dims, unsigned seed) {
  std::size_t count = 1;
  for (const std::int32_t dim : dims) count *= static_cast<std::size_t>(dim);
  return tensor(dims, random_values(count, seed));
}

// The same numbers for every quantised tensor: only their count matters.
Bytes quantised_tensor(const std::vector<std::int32_t>& dims) {
  std::size_t count = 1;
  std::vector<Bytes> entries;
  for (const std::int32_t dim : dims) {
    entries.push_back(integer(dim));
    count *= static_cast<std::size_t>(dim);
  }
  const std::size_t blocks = (count + 127) / 128;
  return Dictionary()
      .add("dims", list(entries))
      .add("mean_f", floats(std::vector<float>(blocks, 0.1F)))
      .add("step_f", floats(std::vector<float>(blocks, 0.01F)))
      .add("data", raw_bytes(Bytes(count, 0x85)));
}

Dictionary conv_keys(Dictionary record, int kernels, int stride, int ksize, int padding) {
  return record.add("spec", spec({{"num_kernels", kernels}, {"stride", stride}, {"ksize", ksize}}))
      .add("padding", padding);
}

Dictionary pool(const char* from, const char* to, const char* mode) {
  return layer("pool", {from}, {to})
      .add("psize", 2)
      .add("stride", 2)
      .add("mode", mode)
      .add("paddingW", 1)
      .add("paddingH", 0);
}

Dictionary neuron(const char* from, const char* to, int outputs) {
  return layer("neuron", {from}, {to}).add("spec", spec({{"num_output", outputs}}));
}

// Mean, crop, convolution, in-place ReLU, pooling, fully connected, softmax, labels.
Bytes classifier() {
  return ModelBuilder(6, 2)
      .set("image_size", integer(4))
      .set("data_mean", random_tensor({1, 6, 6, 2}, 1))
      .add_layer(conv_keys(layer("conv", {"data"}, {"c"}), 3, 1, 3, 1)
                     .add("has_bias", 1)
                     .add("dilation_h", 1)
                     .add("kernels", random_tensor({3, 3, 3, 2}, 2))
                     .add("bias", random_tensor({3}, 3)))
      .add_layer(layer("relu", {"c"}, {"c"}).add("negative_slope", 0.1F))
      .add_layer(pool("c", "p", "max"))
      .add_layer(neuron("p", "f", 2)
                     .add("weight", random_tensor({2, 18}, 4))
                     .add("has_bias", 1)
                     .add("bias", random_tensor({2}, 5))
                     .add("are_weights_transposed", 1))
      .add_layer(layer("max", {"f"}, {"s"}))
      .set("label_names", texts({"cat", "dog"}))
      .bytes();
}

Bytes planar_classifier() {
  return ModelBuilder(4, 2)
      .set("layout", text("BCHW"))
      .set("data_mean", random_tensor({1, 2, 4, 4}, 1))
      .add_layer(conv_keys(layer("conv", {"data"}, {"c"}), 2, 2, 2, 0)
                     .add("has_bias", 0)
                     .add("are_kernels_transposed", 1)
                     .add("kernels", random_tensor({2, 2, 2, 2}, 2)))
      .add_layer(pool("c", "p", "avg"))
      .add_layer(neuron("p", "f", 3)
                     .add("weight", random_tensor({3, 4}, 3))
                     .add("has_bias", 0)
                     .add("are_weights_transposed", 1))
      .bytes();
}

Bytes quantised() {
  return ModelBuilder(4, 2)
      .set("need_quant", integer(1))
      .set("need_crop", integer(0))
      .add_layer(conv_keys(layer("conv", {"data"}, {"c"}), 3, 1, 3, 0)
                     .add("has_bias", 1)
                     .add("kernels", quantised_tensor({3, 3, 3, 2}))
                     .add("bias", quantised_tensor({3})))
      .add_layer(neuron("c", "f", 11).add("weight", quantised_tensor({12, 11})).add("has_bias", 0))
      .bytes();
}

// Two groups whose last sub-record decides; a ReLU that borrows.
Bytes grouped() {
  const auto group = [](unsigned seed) {
    return conv_keys(Dictionary(), 1, 2, 3, 1)
        .add("has_bias", 1)
        .add("dilation_h", 2)
        .add("dilation_w", 2)
        .add("kernels", random_tensor({1, 3, 3, 2}, seed))
        .add("bias", random_tensor({1}, seed))
        .bytes();
  };
  return ModelBuilder(5, 4)
      .add_layer(layer("gconv", {"data"}, {"g"})
                     .add("layers_count", 2)
                     .add("layers", list({group(1), group(2)})))
      .add_layer(layer("relu", {"g"}, {"r"}))
      .bytes();
}

// Chains that lead back, two producers of one Blob, a layer without outputs, prefixes, a pooling
// whose output was made by another layer.
Bytes tangled() {
  return ModelBuilder(3, 1)
      .add_layer(layer("max", {"data"}, {"a"}))
      .add_layer(layer("relu", {"a"}, {"b"}))
      .add_layer(layer("relu", {"b_and_more"}, {"a"}))
      .add_layer(layer("relu", {"data"}, {"b"}))
      .add_layer(pool("data", "p", "max"))
      .add_layer(pool("a", "p", "avg"))
      .add_layer(layer("relu", {"p"}, {}))
      .add_layer(layer("relu", {"b"}, {"data"}))
      .add_layer(layer("unknown", {"p"}, {"q"}))
      .bytes();
}

// Both normalisations, one prior box in each of nine cells, detections of four classes.
Bytes detector() {
  return ModelBuilder(3, 4)
      .add_layer(layer("normalize", {"data"}, {"l"})
                     .add("size", 3)
                     .add("alpha", 0.1F)
                     .add("beta", 0.75F)
                     .add("k", 1.0F))
      .add_layer(layer("norm", {"l"}, {"n"})
                     .add("across_spatial", 0)
                     .add("channel_shared", 0)
                     .add("scale", random_tensor({4}, 1)))
      .add_layer(layer("max", {"n"}, {"s"}))
      .add_layer(layer("priorbox", {"n", "data"}, {"p"})
                     .add("offset", 0.5F)
                     .add("flip", 1)
                     .add("num_priors", 1)
                     .add("clip", 1)
                     .add("img_h", 0)
                     .add("img_w", 0)
                     .add("step_h", 0)
                     .add("step_w", 0)
                     .add("aspect_ratios", small_floats({1.0F}))
                     .add("variance", small_floats({0.1F, 0.1F, 0.2F, 0.2F}))
                     .add("min_size", small_floats({2.0F}))
                     .add("max_size", small_floats({})))
      .add_layer(layer("detectionout", {"l", "s", "p"}, {"d"})
                     .add("num_classes", 4)
                     .add("share_location", 1)
                     .add("num_loc_classes", 1)
                     .add("background_label_id", 0)
                     .add("code_type", 2)
                     .add("variance_encoded_in_target", 0)
                     .add("top_k", 8)
                     .add("keep_top_k", 5)
                     .add("confidence_threshold", 0.1F)
                     .add("nms_threshold", 0.6F)
                     .add("eta", 0.9F))
      .bytes();
}

}  // namespace

std::vector<SmallModel> small_models() {
  return {{"classifier", classifier()}, {"planar_classifier", planar_classifier()},
          {"quantised", quantised()},   {"grouped", grouped()},
          {"tangled", tangled()},       {"detector", detector()}};
}

}  // namespace ravu::test
