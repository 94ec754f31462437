// Any bytes as a model: loaded, set up, run, reshaped, run again, destroyed.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <memory>

#include "support/exercise.h"

// The root's header is put right, so that inputs differ where it matters. The copy has exactly the
// input's size: a step too far is seen.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  constexpr std::size_t kHeaderBytes = 8;
  if (size < kHeaderBytes) return 0;
  const auto model = std::make_unique<std::uint8_t[]>(size);
  std::copy(data, data + size, model.get());
  const std::size_t header[] = {4, size - kHeaderBytes};  // a dictionary, its payload's length
  for (std::size_t i = 0; i < kHeaderBytes; ++i) {
    model[i] = static_cast<std::uint8_t>(header[i / 4] >> (8 * (i % 4)));
  }
  ravu::test::exercise(model.get(), size);
  return 0;
}
