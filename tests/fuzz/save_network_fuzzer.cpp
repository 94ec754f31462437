// Any bytes as a model: what is loaded and saved loads again, and is saved as the same bytes.
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "fuzz/model_input.h"
#include "layers/ConvLayer.h"
#include "model/network_writer.h"
#include "model/tag_writer.h"

namespace {

struct FreeElement {
  void operator()(std::uint8_t* element) const { std::free(element); }
};
using Saved = std::unique_ptr<std::uint8_t, FreeElement>;

ravu::LoadResult load(const std::uint8_t* bytes, std::size_t size) {
  return ravu::read_network(ravu::root_tag(bytes, size), ravu::test::small_network());
}

// Two kinds of networks come back as others, which need not load: "need_crop" is not saved, so a
// crop may return that the model had done without; and one group of a grouped record is saved as a
// plain one, whose output shape depends on the dilation.
bool comes_back_as_another(const ravu::Network& network) {
  if (!network.preprocess && network.input_width != network.image_width) return true;
  return std::any_of(network.layers.begin(), network.layers.end(), [](const auto& layer) {
    const auto* conv = dynamic_cast<const ravu::ConvLayer*>(layer.get());
    return conv != nullptr && conv->groups == 1 && (conv->dilation_h != 1 || conv->dilation_w != 1);
  });
}

[[noreturn]] void fail(const char* what, const char* reason) {
  std::fprintf(stderr, "%s: %s\n", what, reason);
  std::abort();
}

void save_twice(const ravu::Network& network, bool quantise) {
  const Saved first(ravu::write_network(network, quantise));
  if (!first) fail("a loaded network was not saved", "");
  const std::size_t size = ravu::element_bytes(first.get());
  const auto reloaded = load(first.get(), size);
  if (!reloaded.network) fail("a saved network did not load", reloaded.reason.c_str());
  if (quantise) return;  // its tensors are approximations from here on
  const Saved second(ravu::write_network(*reloaded.network, quantise));
  if (!second || ravu::element_bytes(second.get()) != size ||
      std::memcmp(first.get(), second.get(), size) != 0) {
    fail("a network was saved in two ways", "");
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const auto model = ravu::test::model_from(data, size);
  if (!model) return 0;
  const auto result = load(model.get(), size);
  if (!result.network || comes_back_as_another(*result.network)) return 0;
  save_twice(*result.network, /*quantise=*/false);
  save_twice(*result.network, /*quantise=*/true);
  return 0;
}
