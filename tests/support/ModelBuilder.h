// Builds model files in memory, byte by byte, for the tests of their readers. Shares no code with
// the engine.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace ravu::test {

using Bytes = std::vector<std::uint8_t>;

// One element: header and payload.
Bytes element(std::uint32_t type, const Bytes& payload);
Bytes text(std::string_view characters);
Bytes integer(std::int64_t value);  // stored in 32 bits
Bytes real(float value);
Bytes floats(const std::vector<float>& values);
Bytes raw_bytes(const Bytes& payload);
Bytes list(const std::vector<Bytes>& children);
Bytes texts(const std::vector<std::string>& names);
// A dictionary element around one child without a key.
Bytes small_floats(const std::vector<float>& values);
Bytes small_ints(const std::vector<std::int32_t>& values);

// A dictionary element, built key by key.
class Dictionary {
 public:
  Dictionary& add(std::string_view key, const Bytes& value);
  Dictionary& add(std::string_view key, int value) { return add(key, integer(value)); }
  Dictionary& add(std::string_view key, float value) { return add(key, real(value)); }
  Dictionary& add(std::string_view key, const char* value) { return add(key, text(value)); }
  Bytes bytes() const;
  operator Bytes() const { return bytes(); }  // NOLINT: reads well where elements are listed

 private:
  Bytes payload_;
};

// A tensor record of plain floats.
Bytes tensor(const std::vector<std::int32_t>& dims, const std::vector<float>& values);

// `n` numbers from a seeded generator, between -1 and 1.
std::vector<float> random_values(std::size_t n, unsigned seed);

// A layer record with its class and the names that it is wired by.
Dictionary layer(const char* keyword, const std::vector<std::string>& inputs,
                 const std::vector<std::string>& outputs);

// A whole model file. The root keys have usual values until they are replaced.
class ModelBuilder {
 public:
  ModelBuilder(int input_size, int channels);
  ModelBuilder& set(std::string_view key, const Bytes& value);  // adds or replaces
  ModelBuilder& remove(std::string_view key);
  ModelBuilder& add_layer(const Bytes& record);
  Bytes bytes() const;

 private:
  std::vector<std::pair<std::string, Bytes>> keys_;
  std::vector<Bytes> layers_;
};

// A file with these bytes in the test's temporary folder, removed with the object.
class TemporaryFile {
 public:
  explicit TemporaryFile(const Bytes& bytes);
  TemporaryFile(const TemporaryFile&) = delete;
  TemporaryFile& operator=(const TemporaryFile&) = delete;
  ~TemporaryFile();
  const char* path() const { return path_.c_str(); }

 private:
  std::string path_;
};

}  // namespace ravu::test
