// The getters of layer records: lookup, conversion, and one complaint per failing key.
#include "model/record.h"

#include "model/tensor_record.h"

namespace ravu {
namespace {

constexpr std::string_view kTooShort = "the value is too short";

BlobPtr need_tensor(const Record& record, std::string_view key, bool quantised) {
  const Tag tag = need_tag(record, key);
  if (!tag) return nullptr;
  const char* broken_rule = nullptr;
  BlobPtr blob = read_tensor(tag, quantised, &broken_rule);
  if (!blob) {
    record.state->fail(key, broken_rule);
    return nullptr;
  }
  blob->layout = record.state->network->layout;
  return blob;
}

}  // namespace

Tag need_tag(const Record& record, std::string_view key) {
  const Tag tag = get_tag_from_memory(record.dictionary, key);
  if (!tag) record.state->fail(key, "the key is missing");
  return tag;
}

Record need_record(const Record& record, std::string_view key) {
  return {need_tag(record, key), record.state};
}

std::int32_t need_int(const Record& record, std::string_view key) {
  const Tag tag = need_tag(record, key);
  const auto value = tag_int(tag);
  if (tag && !value) record.state->fail(key, kTooShort);
  return value.value_or(0);
}

std::int32_t get_int(const Record& record, std::string_view key, std::int32_t absent) {
  return get_tag_from_memory(record.dictionary, key) ? need_int(record, key) : absent;
}

float get_float(const Record& record, std::string_view key, float absent) {
  const Tag tag = get_tag_from_memory(record.dictionary, key);
  if (!tag) return absent;
  const auto value = tag_float(tag);
  if (!value) record.state->fail(key, kTooShort);
  return value.value_or(0.0F);
}

std::string_view need_text(const Record& record, std::string_view key) {
  return tag_text(need_tag(record, key));
}

std::vector<float> need_floats(const Record& record, std::string_view key) {
  std::vector<float> values;
  const Tag tag = need_tag(record, key);
  if (!tag) return values;
  TagWalk walk(tag);
  if (!walk.next()) record.state->fail(key, kTooShort);
  const std::size_t n = walk.child.length / sizeof(float);
  values.reserve(n);
  for (std::size_t i = 0; i < n; ++i) values.push_back(*tag_float(walk.child, i));
  return values;
}

std::array<std::int32_t, 4> need_four_ints(const Record& record, std::string_view key) {
  std::array<std::int32_t, 4> values{};
  const Tag tag = need_tag(record, key);
  if (!tag) return values;
  TagWalk walk(tag);
  walk.next();
  for (std::size_t i = 0; i < values.size(); ++i) {
    const auto value = tag_int(walk.child, i);
    if (!value) record.state->fail(key, kTooShort);
    values[i] = value.value_or(0);
  }
  return values;
}

BlobPtr need_quantised_tensor(const Record& record, std::string_view key) {
  return need_tensor(record, key, record.state->quantised);
}

BlobPtr need_tensor(const Record& record, std::string_view key) {
  return need_tensor(record, key, /*quantised=*/false);
}

}  // namespace ravu
