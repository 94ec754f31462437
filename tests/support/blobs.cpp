// Building blocks of layer tests.
#include "support/blobs.h"

#include <bit>
#include <limits>
#include <random>
#include <utility>

namespace ravu::test {

BlobPtr make_blob(Dims dims, const std::vector<float>& values) {
  auto blob = std::make_unique<Blob>();
  static_cast<Shape&>(*blob) = make_shape(dims[0], dims[1], dims[2], dims[3], kInterleaved).value();
  if (!values.empty()) assign(*blob, values.data());
  return blob;
}

std::vector<float> values_of(const Blob& blob) {
  if (blob.data == nullptr) return {};
  return {blob.data, blob.data + blob.count};
}

std::vector<std::uint32_t> bits_of(const std::vector<float>& values) {
  std::vector<std::uint32_t> bits;
  for (const float x : values) {
    bits.push_back(x == x ? std::bit_cast<std::uint32_t>(x) : 0x7FC00000U);
  }
  return bits;
}

std::vector<float> values_with_extremes(std::size_t n, unsigned seed) {
  using Limits = std::numeric_limits<float>;
  const float extremes[] = {0.0F, -0.0F, Limits::infinity(), -Limits::infinity(),
                            Limits::quiet_NaN()};
  auto values = random_values(n, seed);
  std::mt19937 random(seed);
  for (std::size_t i = random() % 7; i < n; i += 1 + random() % 7)
    values[i] = extremes[random() % 5];
  return values;
}

LayerRig::~LayerRig() {
  layer.inputs.clear();
  layer.outputs.clear();
  layer.owned_count = 0;
}

Blob& LayerRig::add_input(Dims dims, const std::vector<float>& values) {
  blobs.push_back(make_blob(dims, values));
  layer.inputs.push_back(blobs.back().get());
  return *blobs.back();
}

Blob& LayerRig::add_output(Dims dims) {
  blobs.push_back(make_blob(dims));
  layer.outputs.push_back(blobs.back().get());
  return *blobs.back();
}

std::vector<float> LayerRig::run(unsigned mode) {
  layer.Forward(mode);
  return values_of(*layer.outputs.back());
}

LoadResult load(const Bytes& model, const LoadOptions& options) {
  return read_network(root_tag(model.data(), model.size()), options);
}

LoadResult load(const ModelBuilder& model, const LoadOptions& options) {
  return load(model.bytes(), options);
}

LoadedLayer load_layer(const Bytes& record, int input_size, int channels, std::uint32_t batch) {
  LoadOptions options;
  options.batch = batch;
  LoadResult result = load(ModelBuilder(input_size, channels).add_layer(record), options);
  LoadedLayer loaded;
  loaded.network = std::move(result.network);
  loaded.reason = result.reason;
  if (loaded.network && !loaded.network->layers.empty()) {
    loaded.layer = loaded.network->layers.back().get();
  }
  return loaded;
}

}  // namespace ravu::test
