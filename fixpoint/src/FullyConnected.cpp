// One product serves the whole batch: weights are read once, however many images there are.
#include "FullyConnected.h"

#include <algorithm>
#include <utility>

namespace ravu::fixpoint {

bool FullyConnected::configure(std::int32_t outputs, std::int32_t features, const float* weights,
                               const float* bias) {
  if (finished() || weights == nullptr || !valid_size(outputs) || !valid_size(features) ||
      std::int64_t{outputs} * features > kMaxElements) {
    return false;
  }
  bias_ = bias == nullptr ? std::vector<float>() : std::vector<float>(bias, bias + outputs);
  outputs_ = outputs;
  features_ = features;
  weights_ = weights;
  return true;
}

bool FullyConnected::finish(float range) {
  if (finished() || weights_ == nullptr) return false;
  if (!quantise_weights_of({outputs_, features_, 1, 1, 1, 1}, weights_, range, bias_)) return false;
  weights_ = nullptr;
  return true;
}

bool FullyConnected::set_input(std::int32_t batch, std::int32_t features, const float* data,
                               float range) {
  if (!finished() || data == nullptr || !valid_size(batch) || features != features_ ||
      !within(range, 1, kGreatestInput) || std::int64_t{batch} * features > kMaxElements ||
      std::int64_t{batch} * outputs_ > kMaxElements) {
    return false;
  }
  batch_ = batch;
  input_ = data;
  range_ = range;
  return true;
}

bool FullyConnected::run(float* output, float rounding) {
  if (input_ == nullptr || output == nullptr || !within(rounding, 0, 1)) return false;
  const float* input = std::exchange(input_, nullptr);
  const auto images = static_cast<std::size_t>(batch_);
  const auto features = static_cast<std::size_t>(features_);
  const auto outputs = static_cast<std::size_t>(outputs_);
  extents_.resize(images);
  bool signs = false;
  for (std::size_t i = 0; i < images; ++i) {
    extents_[i] = extent(input + i * features, features);
    signs = signs || extents_[i].signs;
  }
  bytes_.resize(images * features);
  for (std::size_t i = 0; i < images; ++i) {
    quantise(input + i * features, features,
             {range_ / extents_[i].magnitude, rounding, signs ? kZeroPoint : 0},
             bytes_.data() + i * features);
  }
  compute({1, batch_, 1, batch_}, bytes_.data(), signs, output);
  for (std::size_t i = 0; i < images; ++i) {
    finish_sums(output + i * outputs, outputs, signs, extents_[i].magnitude / range_);
  }
  return true;
}

}  // namespace ravu::fixpoint
