// The exported functions that fill the network's input or replace its mean.
#include <algorithm>
#include <utility>

#include "api/handle.h"

using namespace ravu;

namespace {

void convert(const uint8_t* bytes, std::size_t n, float* floats) {
  std::transform(bytes, bytes + n, floats, [](uint8_t b) { return static_cast<float>(b); });
}

// Brings the input to the wanted dims, to be filled by the caller. Null when they cannot be had;
// nothing has changed then.
Blob* input_of_shape(ravu_network* handle, uint32_t batch, uint32_t height, uint32_t width,
                     uint32_t channels) {
  Network& network = *to_network(handle);
  const auto shape = make_shape(batch, height, width, channels, network.input->layout);
  if (!shape || shape->count == 0) return nullptr;
  return or_fallback<Blob*>(nullptr, [&]() -> Blob* {
    if (network.input->dims != shape->dims) network.change_input_shape(*shape);
    if (network.input->data == nullptr) return nullptr;
    network.clear_for_input();
    return network.input.get();
  });
}

// Copies one prepared image to its place in the input.
void copy_image(Network& network, Blob& image, std::size_t index) {
  Blob& input = *network.input;
  const std::size_t item = input.dims[0] == 0 ? 0 : input.count / input.dims[0];
  const Blob* mean = network.mean.get();
  if (mean != nullptr && mean->data != nullptr) {
    // Kept: this happens whatever `preprocess` says, and the forward run may subtract it again.
    subtract_repeated(image.data, image.data, mean->data, -1.0F,
                      std::min<std::size_t>(item, image.count), mean->count);
  }
  if (index >= input.dims[0] || input.data == nullptr) return;
  std::copy_n(image.data, std::min<std::size_t>(item, image.count), input.data + index * item);
}

}  // namespace

ravu_blob* ravu_create_data_blob(ravu_network* network, const uint8_t* bytes, uint32_t width,
                                 uint32_t height, uint32_t channels, int32_t stride) {
  const auto layout = network == nullptr ? kInterleaved : to_network(network)->layout;
  const auto shape = make_shape(1, height, width, channels, layout);
  if (network == nullptr || bytes == nullptr || !shape || shape->count == 0) return nullptr;
  if (std::uint64_t{shape->count} * sizeof(float) > to_network(network)->memory_limit) {
    return nullptr;
  }
  return or_fallback<ravu_blob*>(nullptr, [&] {
    auto blob = std::make_unique<Blob>();
    static_cast<Shape&>(*blob) = *shape;
    allocate(*blob);
    const std::size_t row = std::size_t{width} * channels;
    for (std::size_t y = 0; y < height; ++y) {
      convert(bytes + static_cast<std::ptrdiff_t>(y) * stride, row, blob->data + y * row);
    }
    return to_handle(blob.release());
  });
}

bool ravu_set_InputData(ravu_network* network, ravu_blob** blobs, uint32_t n) {
  if (network == nullptr || blobs == nullptr || n == 0) return false;
  to_network(network)->clear_for_input();
  for (uint32_t i = 0; i < n; ++i) {
    // Kept: an image given twice loses the mean each time, so its second copy differs. It is
    // released with the last one.
    const BlobPtr image(
        std::find(blobs + i + 1, blobs + n, blobs[i]) == blobs + n ? to_blob(blobs[i]) : nullptr);
    if (blobs[i] != nullptr) copy_image(*to_network(network), *to_blob(blobs[i]), i);
  }
  return true;
}

void ravu_set_InputData_byRawData_float(ravu_network* network, const float* pixels, uint32_t batch,
                                        uint32_t height, uint32_t width, uint32_t channels) {
  if (network == nullptr || pixels == nullptr) return;
  const Blob* input = input_of_shape(network, batch, height, width, channels);
  if (input != nullptr) std::copy_n(pixels, input->count, input->data);
}

void ravu_set_InputData_byRawData_byte(ravu_network* network, const uint8_t* pixels, uint32_t batch,
                                       uint32_t height, uint32_t width, uint32_t channels) {
  if (network == nullptr || pixels == nullptr) return;
  const Blob* input = input_of_shape(network, batch, height, width, channels);
  if (input != nullptr) convert(pixels, input->count, input->data);
}

void ravu_set_InputData_byRawData_test(ravu_network* network, const uint8_t* pixels, uint32_t batch,
                                       uint32_t height, uint32_t width, uint32_t channels) {
  if (network == nullptr || pixels == nullptr) return;
  const Blob* input = input_of_shape(network, batch, height, width, channels);
  if (input == nullptr) return;
  const std::size_t row = std::size_t{width} * channels;
  // Kept: the rows are the model's, not the argument's, as far as the image has them.
  const std::size_t rows = std::min(height, to_network(network)->input_height);
  // Kept: every batch item gets the first image.
  for (std::size_t b = 0; b < batch; ++b) {
    convert(pixels, rows * row, input->data + b * height * row);
  }
}

void ravu_set_meanData(ravu_network* network, const void* values) {
  if (network == nullptr) return;
  Network& target = *to_network(network);
  or_fallback(false, [&] {
    const Blob& input = *target.input;
    const auto shape = make_shape(1, input.dims[1], input.dims[2], input.dims[3], input.layout);
    auto mean = std::make_unique<Blob>();
    static_cast<Shape&>(*mean) = *shape;
    assign(*mean, values);
    target.set_mean(std::move(mean));
    return true;
  });
}
