// The tagged container that model files are made of, read in place. This is the only code that
// touches the raw bytes of a model: everything it hands out stays inside the file's image.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <memory>
#include <optional>
#include <string_view>

namespace ravu {

// The types that an element's header may name. Readers do not look at them.
enum TagType : std::uint32_t {
  kTagText = 0,  // characters and zero bytes up to a multiple of 4; also raw bytes, unpadded
  kTagInt = 1,
  kTagFloat = 2,
  kTagFloatArray = 3,
  kTagDictionary = 4,
  kTagList = 5
};

inline constexpr std::size_t kTagHeaderBytes = 8;  // type, payload length: 32 bits each

// One element of the image: a view of its payload. Nothing in it is aligned.
struct Tag {
  const std::uint8_t* payload = nullptr;  // null: there is no such element
  std::uint32_t type = 0;
  std::uint32_t length = 0;  // bytes of payload, all inside the image

  explicit operator bool() const { return payload != nullptr; }
};

struct FreeImage {
  void operator()(std::uint8_t* image) const { std::free(image); }
};
using FileImage = std::unique_ptr<std::uint8_t, FreeImage>;

// Reads a whole file: header and payload of its one root element. Null when it cannot be opened or
// is shorter than its header says. Bytes behind the root are not read.
FileImage load_file(const char* path);

// The root element of an image made by load_file.
Tag root_tag(const std::uint8_t* image);

// The root element of `size` bytes in memory; none when they are too few.
Tag root_tag(const std::uint8_t* bytes, std::size_t size);

// The value stored under `key`; the last one when the key is there several times, none when it is
// not there. A dictionary whose lengths contradict each other yields none, after a message.
Tag get_tag_from_memory(const Tag& dictionary, std::string_view key);

// Walks the children of a list (or of any container): while (walk.next()) use(walk.child).
// Ends, after a message, at a child that does not fit into its parent.
class TagWalk {
 public:
  explicit TagWalk(const Tag& parent) : parent_(parent) {}
  bool next();

  Tag child;

 private:
  Tag parent_;
  std::size_t offset_ = 0;
};

// The 32-bit value at `index` of the payload; none when the payload ends before.
std::optional<std::int32_t> tag_int(const Tag& tag, std::size_t index = 0);
std::optional<float> tag_float(const Tag& tag, std::size_t index = 0);

// The characters up to the first zero byte or the element's end.
std::string_view tag_text(const Tag& tag);

}  // namespace ravu
