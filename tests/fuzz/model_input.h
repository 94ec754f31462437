// What the fuzz targets share: how an input becomes a model, and how much it may ask for.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <memory>

#include "model/network_reader.h"

namespace ravu::test {

// A copy of exactly the input's size, so that a step too far is seen. The root's header is put
// right, so that inputs differ where it matters. Null for inputs without room for a header.
inline std::unique_ptr<std::uint8_t[]> model_from(const std::uint8_t* data, std::size_t size) {
  constexpr std::size_t kHeaderBytes = 8;
  if (size < kHeaderBytes) return nullptr;
  auto model = std::make_unique<std::uint8_t[]>(size);
  std::copy(data, data + size, model.get());
  const std::size_t header[] = {4, size - kHeaderBytes};  // a dictionary, its payload's length
  for (std::size_t i = 0; i < kHeaderBytes; ++i) {
    model[i] = static_cast<std::uint8_t>(header[i / 4] >> (8 * (i % 4)));
  }
  return model;
}

// The loader refuses what needs more memory than this, and so more work than an input is worth.
inline LoadOptions small_network() {
  LoadOptions options;
  options.memory_limit = std::uint64_t{1} << 17;
  return options;
}

}  // namespace ravu::test
