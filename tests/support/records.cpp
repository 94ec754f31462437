// Each function states every key that its reader wants.
#include "support/records.h"

#include <cmath>

namespace ravu::test {
namespace {

Dictionary kernel_set(Dictionary record, const ConvKeys& keys, unsigned seed) {
  const Bytes spec = Dictionary()
                         .add("num_kernels", keys.kernels)
                         .add("stride", keys.stride)
                         .add("ksize", keys.ksize);
  record.add("spec", spec)
      .add("padding", keys.padding)
      .add("dilation_h", keys.dilation)
      .add("dilation_w", keys.dilation)
      .add("has_bias", keys.bias ? 1 : 0)
      .add("kernels", random_tensor({keys.kernels, keys.ksize, keys.ksize, keys.inputs}, seed));
  if (keys.bias) record.add("bias", random_tensor({keys.kernels}, seed + 1));
  return record;
}

Bytes positive_tensor(int n, unsigned seed) {
  auto values = random_values(static_cast<std::size_t>(n), seed);
  for (float& value : values) value = std::abs(value) + 0.5F;
  return tensor({n}, values);
}

}  // namespace

Bytes random_tensor(const std::vector<std::int32_t>& dims, unsigned seed) {
  std::size_t count = 1;
  for (const std::int32_t dim : dims) count *= static_cast<std::size_t>(dim);
  return tensor(dims, random_values(count, seed));
}

Dictionary conv_record(const std::string& from, const std::string& to, const ConvKeys& keys,
                       unsigned seed) {
  return kernel_set(layer("conv", {from}, {to}), keys, seed);
}

Dictionary group_record(const std::string& from, const std::string& to, int groups,
                        const ConvKeys& keys, unsigned seed) {
  std::vector<Bytes> sets;
  for (int g = 0; g < groups; ++g) {
    sets.push_back(kernel_set(Dictionary(), keys, seed + 10 * static_cast<unsigned>(g)));
  }
  return layer("gconv", {from}, {to}).add("layers_count", groups).add("layers", list(sets));
}

Dictionary pool_record(const std::string& from, const std::string& to, const char* mode, int psize,
                       int stride, int padding) {
  return layer("pool", {from}, {to})
      .add("psize", psize)
      .add("stride", stride)
      .add("mode", mode)
      .add("paddingW", padding)
      .add("paddingH", padding);
}

Dictionary neuron_record(const std::string& from, const std::string& to, int features, int outputs,
                         unsigned seed) {
  return layer("neuron", {from}, {to})
      .add("spec", Dictionary().add("num_output", outputs))
      .add("weight", random_tensor({features, outputs}, seed))
      .add("has_bias", 1)
      .add("bias", random_tensor({outputs}, seed + 1));
}

Dictionary bn_record(const std::string& from, const std::string& to, int channels, unsigned seed) {
  return layer("bn", {from}, {to})
      .add("mean", random_tensor({channels}, seed))
      .add("var", positive_tensor(channels, seed + 1));
}

Dictionary scale_record(const std::string& from, const std::string& to,
                        const std::vector<std::int32_t>& dims, bool bias, unsigned seed) {
  Dictionary record = layer("scale", {from}, {to});
  record.add("has_bias", bias ? 1 : 0).add("scales", random_tensor(dims, seed));
  if (bias) record.add("bias", random_tensor(dims, seed + 1));
  return record;
}

Dictionary relu_record(const std::string& from, const std::string& to, float slope) {
  return layer("relu", {from}, {to}).add("negative_slope", slope);
}

Dictionary prelu_record(const std::string& from, const std::string& to, int channels,
                        unsigned seed) {
  return layer("prelu", {from}, {to})
      .add("channel_shared", 0)
      .add("filler", random_tensor({channels}, seed));
}

Dictionary power_record(const std::string& from, const std::string& to, float power, float scale,
                        float shift) {
  return layer("power", {from}, {to}).add("power", power).add("scale", scale).add("shift", shift);
}

Dictionary eltwise_record(const std::vector<std::string>& from, const std::string& to,
                          const char* operation) {
  return layer("eltwise", from, {to}).add("operation", operation);
}

Dictionary lrn_record(const std::string& from, const std::string& to, int size) {
  return layer("normalize", {from}, {to})
      .add("size", size)
      .add("alpha", 0.3F)
      .add("beta", 0.75F)
      .add("k", 1.0F);
}

Dictionary norm_record(const std::string& from, const std::string& to, bool across_spatial,
                       bool channel_shared, const std::vector<float>& scale) {
  return layer("norm", {from}, {to})
      .add("across_spatial", across_spatial ? 1 : 0)
      .add("channel_shared", channel_shared ? 1 : 0)
      .add("scale", tensor({static_cast<std::int32_t>(scale.size())}, scale));
}

Dictionary reshape_record(const std::string& from, const std::string& to,
                          const std::vector<std::int32_t>& dims, int inferred_axis) {
  return layer("reshape", {from}, {to})
      .add("constant_count", 1)
      .add("inferred_axis", inferred_axis)
      .add("dims", small_ints(dims));
}

Dictionary permute_record(const std::string& from, const std::string& to, bool need_permute,
                          const std::vector<std::int32_t>& order) {
  return layer("permute", {from}, {to})
      .add("need_permute", need_permute ? 1 : 0)
      .add("permute_order", small_ints(order));
}

Dictionary prior_record(const std::vector<std::string>& from, const std::string& to,
                        const PriorKeys& keys) {
  return layer("priorbox", from, {to})
      .add("offset", 0.5F)
      .add("flip", keys.flip ? 1 : 0)
      .add("clip", keys.clip ? 1 : 0)
      .add("num_priors", keys.num_priors)
      .add("img_h", keys.img_h)
      .add("img_w", keys.img_w)
      .add("step_h", keys.step_h)
      .add("step_w", keys.step_w)
      .add("aspect_ratios", small_floats(keys.ratios))
      .add("variance", small_floats(keys.variances))
      .add("min_size", small_floats(keys.min_sizes))
      .add("max_size", small_floats(keys.max_sizes));
}

Dictionary detection_record(const std::vector<std::string>& from, const std::string& to,
                            const DetectionKeys& keys) {
  const int by_share = keys.share ? 1 : keys.classes;
  return layer("detectionout", from, {to})
      .add("num_classes", keys.classes)
      .add("share_location", keys.share ? 1 : 0)
      .add("num_loc_classes", keys.location_classes == 0 ? by_share : keys.location_classes)
      .add("background_label_id", keys.background)
      .add("code_type", keys.code_type)
      .add("variance_encoded_in_target", keys.encoded ? 1 : 0)
      .add("top_k", keys.top_k)
      .add("keep_top_k", keys.keep_top_k)
      .add("confidence_threshold", keys.threshold)
      .add("nms_threshold", keys.nms)
      .add("eta", keys.eta);
}

}  // namespace ravu::test
