// One function, `child_at`, decides whether an element fits where it stands; every lookup and every
// walk goes through it. Lengths are compared, never added to a pointer first.
#include "model/tag_reader.h"

#include <algorithm>
#include <bit>
#include <cstdio>
#include <cstring>

namespace ravu {
namespace {

static_assert(std::endian::native == std::endian::little, "model files are little-endian");

struct CloseFile {
  void operator()(std::FILE* file) const { std::fclose(file); }
};

std::uint32_t load_u32(const std::uint8_t* bytes) {
  std::uint32_t value;
  std::memcpy(&value, bytes, sizeof value);
  return value;
}

// The element at `offset` of the parent's payload; none, after a message, when it does not fit.
Tag child_at(const Tag& parent, std::size_t offset) {
  const std::size_t left = parent.length - offset;
  if (left >= kTagHeaderBytes) {
    const std::uint8_t* header = parent.payload + offset;
    const Tag child{header + kTagHeaderBytes, load_u32(header), load_u32(header + 4)};
    if (child.length <= left - kTagHeaderBytes) return child;
  }
  std::fputs("Tova get_tag_from_memory() not enough bytes remaining\n", stderr);
  return {};
}

// Reads exactly `length` bytes behind the header. The buffer grows with what the file really
// holds, so a header that lies costs no memory.
FileImage read_payload(std::FILE* file, const std::uint8_t* header, std::uint32_t length) {
  constexpr std::size_t kFirstPiece = std::size_t{1} << 26;
  std::size_t done = kTagHeaderBytes;
  const std::size_t end = kTagHeaderBytes + length;
  FileImage image;
  do {
    const std::size_t wanted = std::min(end, std::max(done * 2, kFirstPiece));
    auto* grown = static_cast<std::uint8_t*>(std::realloc(image.get(), wanted));
    if (grown == nullptr) return nullptr;
    static_cast<void>(image.release());
    image.reset(grown);
    if (done == kTagHeaderBytes) std::memcpy(grown, header, kTagHeaderBytes);
    if (std::fread(grown + done, 1, wanted - done, file) != wanted - done) return nullptr;
    done = wanted;
  } while (done < end);
  return image;
}

}  // namespace

FileImage load_file(const char* path) {
  if (path == nullptr) return nullptr;
  const std::unique_ptr<std::FILE, CloseFile> file(std::fopen(path, "rb"));
  if (!file) return nullptr;
  std::uint8_t header[kTagHeaderBytes];
  if (std::fread(header, 1, sizeof header, file.get()) != sizeof header) return nullptr;
  return read_payload(file.get(), header, load_u32(header + 4));
}

Tag root_tag(const std::uint8_t* image) {
  return {image + kTagHeaderBytes, load_u32(image), load_u32(image + 4)};
}

Tag root_tag(const std::uint8_t* bytes, std::size_t size) {
  if (size < kTagHeaderBytes || load_u32(bytes + 4) > size - kTagHeaderBytes) return {};
  return root_tag(bytes);
}

Tag get_tag_from_memory(const Tag& dictionary, std::string_view key) {
  Tag found;
  for (std::size_t offset = 0; offset < dictionary.length;) {
    const Tag stored_key = child_at(dictionary, offset);
    if (!stored_key) return {};
    offset += kTagHeaderBytes + stored_key.length;
    const Tag value = child_at(dictionary, offset);
    if (!value) return {};
    offset += kTagHeaderBytes + value.length;
    if (tag_text(stored_key) == key) found = value;
  }
  return found;
}

bool TagWalk::next() {
  if (offset_ >= parent_.length) return false;
  child = child_at(parent_, offset_);
  offset_ = child ? offset_ + kTagHeaderBytes + child.length : parent_.length;
  return static_cast<bool>(child);
}

std::optional<std::int32_t> tag_int(const Tag& tag, std::size_t index) {
  if (index >= tag.length / sizeof(std::int32_t)) return std::nullopt;
  return static_cast<std::int32_t>(load_u32(tag.payload + index * sizeof(std::int32_t)));
}

std::optional<float> tag_float(const Tag& tag, std::size_t index) {
  const auto bits = tag_int(tag, index);
  if (!bits) return std::nullopt;
  return std::bit_cast<float>(*bits);
}

std::string_view tag_text(const Tag& tag) {
  const auto* begin = tag.payload;
  const auto* end = std::find(begin, begin + tag.length, std::uint8_t{0});
  return {reinterpret_cast<const char*>(begin), static_cast<std::size_t>(end - begin)};
}

}  // namespace ravu
