// Any bytes as a model: loaded, set up, run once on values of every kind, its outputs read,
// destroyed. Several times as fast as doing everything to it, so it gets deeper.
#include <bit>
#include <new>

#include "fuzz/model_input.h"
#include "graph/cpu_backend.h"

namespace {

// The bits of the model itself, as floats: large, tiny, infinite, not a number.
void fill(ravu::Blob& input, const std::uint8_t* bytes, std::size_t size) {
  for (std::uint32_t i = 0; input.data != nullptr && i < input.count; ++i) {
    std::uint32_t bits = 0;
    for (std::size_t b = 0; b < 4; ++b) bits = bits << 8 | bytes[(i * 4 + b) % size];
    input.data[i] = std::bit_cast<float>(bits);
  }
}

void read_values(const ravu::Blob* blob) {
  if (blob == nullptr || blob->data == nullptr) return;
  volatile float last = 0;
  for (std::uint32_t i = 0; i < blob->count; ++i) last = blob->data[i];
  static_cast<void>(last);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const auto model = ravu::test::model_from(data, size);
  if (!model) return 0;
  ravu::LoadOptions options = ravu::test::small_network();
  options.batch = static_cast<std::uint32_t>(1 + size % 3);
  const auto result = ravu::read_network(ravu::root_tag(model.get(), size), options);
  if (!result.network) return 0;
  try {
    ravu::setup_cpu(*result.network, 0);
  } catch (const std::bad_alloc&) {
    return 0;
  }
  fill(*result.network->input, model.get(), size);
  ravu::forward_cpu(*result.network, 0);
  for (const ravu::Blob* output : result.network->outputs) read_values(output);
  for (const auto& layer : result.network->layers) read_values(last_output(*layer));
  return 0;
}
