// Elements are plain byte vectors, put together by appending.
#include "support/ModelBuilder.h"

#include <algorithm>
#include <atomic>
#include <bit>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <random>

namespace ravu::test {
namespace {

void append_u32(Bytes& bytes, std::uint32_t value) {
  for (int shift = 0; shift < 32; shift += 8) {
    bytes.push_back(static_cast<std::uint8_t>(value >> shift));
  }
}

void append(Bytes& bytes, const Bytes& more) {
  bytes.insert(bytes.end(), more.begin(), more.end());
}

Bytes float_payload(const std::vector<float>& values) {
  Bytes payload;
  for (const float value : values) append_u32(payload, std::bit_cast<std::uint32_t>(value));
  return payload;
}

}  // namespace

Bytes element(std::uint32_t type, const Bytes& payload) {
  Bytes bytes;
  append_u32(bytes, type);
  append_u32(bytes, static_cast<std::uint32_t>(payload.size()));
  append(bytes, payload);
  return bytes;
}

Bytes text(std::string_view characters) {
  Bytes payload(characters.begin(), characters.end());
  payload.resize((characters.size() + 4) / 4 * 4, 0);
  return element(0, payload);
}

Bytes integer(std::int64_t value) {
  Bytes payload;
  append_u32(payload, static_cast<std::uint32_t>(value));
  return element(1, payload);
}

Bytes real(float value) {
  return element(2, float_payload({value}));
}

Bytes floats(const std::vector<float>& values) {
  return element(3, float_payload(values));
}

Bytes raw_bytes(const Bytes& payload) {
  return element(0, payload);
}

Bytes list(const std::vector<Bytes>& children) {
  Bytes payload;
  for (const Bytes& child : children) append(payload, child);
  return element(5, payload);
}

Bytes texts(const std::vector<std::string>& names) {
  std::vector<Bytes> children;
  for (const std::string& name : names) children.push_back(text(name));
  return list(children);
}

Bytes small_floats(const std::vector<float>& values) {
  return element(4, element(2, float_payload(values)));
}

Bytes small_ints(const std::vector<std::int32_t>& values) {
  Bytes payload;
  for (const std::int32_t value : values) append_u32(payload, static_cast<std::uint32_t>(value));
  return element(4, element(1, payload));
}

Dictionary& Dictionary::add(std::string_view key, const Bytes& value) {
  append(payload_, text(key));
  append(payload_, value);
  return *this;
}

Bytes Dictionary::bytes() const {
  return element(4, payload_);
}

Bytes tensor(const std::vector<std::int32_t>& dims, const std::vector<float>& values) {
  std::vector<Bytes> entries;
  for (const std::int32_t dim : dims) entries.push_back(integer(dim));
  return Dictionary().add("float_bits", 32).add("dims", list(entries)).add("data", floats(values));
}

std::vector<float> random_values(std::size_t n, unsigned seed) {
  std::mt19937 generator(seed);
  std::uniform_real_distribution<float> distribution(-1.0F, 1.0F);
  std::vector<float> values(n);
  std::generate(values.begin(), values.end(), [&] { return distribution(generator); });
  return values;
}

Dictionary layer(const char* keyword, const std::vector<std::string>& inputs,
                 const std::vector<std::string>& outputs) {
  return Dictionary()
      .add("class", keyword)
      .add("input_layers", texts(inputs))
      .add("output_layers", texts(outputs));
}

ModelBuilder::ModelBuilder(int input_size, int channels) {
  set("layout", text("BHWC"));
  set("input_size", integer(input_size));
  set("image_size", integer(input_size));
  set("input_channel_num", integer(channels));
  set("input_name", text("data"));
}

ModelBuilder& ModelBuilder::set(std::string_view key, const Bytes& value) {
  remove(key);
  keys_.emplace_back(key, value);
  return *this;
}

ModelBuilder& ModelBuilder::remove(std::string_view key) {
  keys_.erase(std::remove_if(keys_.begin(), keys_.end(),
                             [&](const auto& entry) { return entry.first == key; }),
              keys_.end());
  return *this;
}

ModelBuilder& ModelBuilder::add_layer(const Bytes& record) {
  layers_.push_back(record);
  set("layers", list(layers_));
  return *this;
}

Bytes ModelBuilder::bytes() const {
  Dictionary root;
  for (const auto& [key, value] : keys_) root.add(key, value);
  return root.bytes();
}

TemporaryFile::TemporaryFile(const Bytes& bytes) {
  static std::atomic<int> counter{0};
  const auto folder = std::filesystem::temp_directory_path();
  path_ = (folder / ("ravu_test_" + std::to_string(std::random_device{}()) + "_" +
                     std::to_string(counter++)))
              .string();
  std::ofstream(path_, std::ios::binary)
      .write(reinterpret_cast<const char*>(bytes.data()),
             static_cast<std::streamsize>(bytes.size()));
}

TemporaryFile::~TemporaryFile() {
  std::remove(path_.c_str());
}

}  // namespace ravu::test
