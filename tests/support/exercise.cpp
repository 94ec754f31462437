// The sanitizers judge; this only makes sure that every value is touched.
#include "support/exercise.h"

#include <algorithm>
#include <new>

#include "graph/cpu_backend.h"
#include "model/network_reader.h"

namespace ravu::test {
namespace {

constexpr std::uint64_t kMemoryLimit = std::uint64_t{1} << 17;

void read_values(const Blob* blob) {
  if (blob == nullptr || blob->data == nullptr) return;
  volatile float last = 0;
  for (std::uint32_t i = 0; i < blob->count; ++i) last = blob->data[i];
  static_cast<void>(last);
}

void run(Network& network, std::uint32_t mode) {
  Blob& input = *network.input;
  if (input.data != nullptr) {
    for (std::uint32_t i = 0; i < input.count; ++i) input.data[i] = static_cast<float>(i % 7);
  }
  forward_cpu(network, mode);
  for (const Blob* output : network.outputs) read_values(output);
  for (const auto& layer : network.layers) read_values(last_output(*layer));
}

void change_shape(Network& network, int batch_step, int side_step, int channel_step) {
  Shape& old = *network.input;
  const auto stepped = [](std::uint32_t dim, int step) {
    return std::max<std::int64_t>(std::int64_t{dim} + step, 1);
  };
  const auto shape =
      make_shape(stepped(old.dims[0], batch_step), stepped(old.dims[1], side_step),
                 stepped(old.dims[2], side_step), stepped(old.dims[3], channel_step), old.layout);
  // Blobs that are large already are left alone: the time they take finds nothing new.
  if (!shape || shape->count > kMemoryLimit / sizeof(float)) return;
  network.change_input_shape(*shape);
}

}  // namespace

bool exercise(const std::uint8_t* bytes, std::size_t size) {
  LoadOptions options;
  options.batch = 2;
  options.channel_mean = size % 2 == 0;
  options.memory_limit = kMemoryLimit;
  const LoadResult result = read_network(root_tag(bytes, size), options);
  if (!result.network) return false;
  Network& network = *result.network;
  try {
    for (const std::uint32_t mode : {0U, 3U}) {
      run(network, mode);
      setup_cpu(network, mode);
      run(network, mode);
      change_shape(network, 1, 0, 0);
      run(network, mode);
      change_shape(network, -1, 1, 0);
      run(network, mode);
      change_shape(network, -1, -2, 1);
      setup_cpu(network, mode);
      run(network, mode);
    }
    change_shape(network, 2, 1, -2);
    setup_cpu(network, 0);
    run(network, 0);
    network.release_weights();
    change_shape(network, 1, 0, 0);
    run(network, 0);
  } catch (const std::bad_alloc&) {
    run(network, 0);
  }
  return true;
}

}  // namespace ravu::test
