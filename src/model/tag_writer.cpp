// Growing buffers: an element is one block from malloc, header first.
#include "model/tag_writer.h"

#include <cstdlib>
#include <cstring>

namespace ravu {
namespace {

constexpr std::size_t kMaxPayload = 0xFFFFFFFFU;

std::uint32_t payload_bytes(const std::uint8_t* element) {
  std::uint32_t length;
  std::memcpy(&length, element + sizeof length, sizeof length);
  return length;
}

void set_payload_bytes(std::uint8_t* element, std::size_t length) {
  const auto stored = static_cast<std::uint32_t>(length);
  std::memcpy(element + sizeof stored, &stored, sizeof stored);
}

// An element with `length` zeroed payload bytes, the first `given` of them copied.
std::uint8_t* make(std::uint32_t type, const void* payload, std::size_t given, std::size_t length) {
  if (length > kMaxPayload) return nullptr;
  auto* element = static_cast<std::uint8_t*>(std::calloc(1, kTagHeaderBytes + length));
  if (element == nullptr) return nullptr;
  std::memcpy(element, &type, sizeof type);
  set_payload_bytes(element, length);
  if (given > 0) std::memcpy(element + kTagHeaderBytes, payload, given);
  return element;
}

std::uint8_t* make(std::uint32_t type, const void* payload, std::size_t length) {
  return make(type, payload, length, length);
}

// A dictionary element around one child; frees the child.
std::uint8_t* wrap(std::uint8_t* child) {
  return append(make(kTagDictionary, nullptr, 0), child);
}

}  // namespace

std::uint8_t* make_dictionary() {
  return make(kTagDictionary, nullptr, 0);
}

std::uint8_t* make_list() {
  return make(kTagList, nullptr, 0);
}

std::uint8_t* make_text(std::string_view characters) {
  // At least one zero byte follows the characters.
  const std::size_t padded = (characters.size() + 4) / 4 * 4;
  return make(kTagText, characters.data(), characters.size(), padded);
}

std::uint8_t* make_int(std::int32_t value) {
  return make(kTagInt, &value, sizeof value);
}

std::uint8_t* make_float(float value) {
  return make(kTagFloat, &value, sizeof value);
}

std::uint8_t* make_floats(std::span<const float> values) {
  return make(kTagFloatArray, values.data(), values.size_bytes());
}

std::uint8_t* make_bytes(std::span<const std::uint8_t> bytes) {
  return make(kTagText, bytes.data(), bytes.size());
}

std::uint8_t* make_copy(const Tag& tag) {
  return make(tag.type, tag.payload, tag.length);
}

std::uint8_t* make_small_floats(std::span<const float> values) {
  return wrap(make(kTagFloat, values.data(), values.size_bytes()));
}

std::uint8_t* make_small_ints(std::span<const std::int32_t> values) {
  return wrap(make(kTagInt, values.data(), values.size_bytes()));
}

std::uint8_t* add(std::uint8_t* dictionary, std::string_view key, std::uint8_t* value) {
  return append(append(dictionary, make_text(key)), value);
}

std::uint8_t* append(std::uint8_t* list, std::uint8_t* child) {
  std::uint8_t* grown = nullptr;
  if (list != nullptr && child != nullptr) {
    const std::size_t old_bytes = element_bytes(list);
    const std::size_t new_bytes = old_bytes + element_bytes(child);
    if (new_bytes - kTagHeaderBytes <= kMaxPayload) {
      grown = static_cast<std::uint8_t*>(std::realloc(list, new_bytes));
    }
    if (grown != nullptr) {
      std::memcpy(grown + old_bytes, child, element_bytes(child));
      set_payload_bytes(grown, new_bytes - kTagHeaderBytes);
    }
  }
  if (grown == nullptr) std::free(list);
  std::free(child);
  return grown;
}

std::size_t element_bytes(const std::uint8_t* element) {
  return kTagHeaderBytes + std::size_t{payload_bytes(element)};
}

}  // namespace ravu
