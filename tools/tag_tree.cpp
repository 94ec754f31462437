// From a file's elements to the tree that `ravu inspect --tags` shows. Types are what the headers
// say; the engine itself goes by keys alone.
#include <algorithm>
#include <cstdio>

#include "common/printing.h"
#include "inspect.h"

namespace ravu::tools {
namespace {

constexpr std::size_t kMaxDepth = 32;
constexpr std::size_t kMaxElements = 1'000'000;
constexpr std::size_t kShownCharacters = 60;
constexpr std::size_t kShownNumbers = 6;
constexpr std::size_t kShownBytes = 12;

std::string number_text(float value) {
  char text[32];
  std::snprintf(text, sizeof text, "%.6g", static_cast<double>(value));
  return text;
}

std::string cut_text(std::string_view text) {
  if (text.size() <= kShownCharacters) return '"' + printable(text) + '"';
  return '"' + printable(text.substr(0, kShownCharacters)) + "\"...";
}

// Up to `limit` entries of n, each as text(i), and "..." when there are more.
template <class Text>
std::string join(std::size_t n, std::size_t limit, Text text) {
  std::string joined;
  for (std::size_t i = 0; i < std::min(n, limit); ++i) joined += (i > 0 ? " " : "") + text(i);
  return n > limit ? joined + " ..." : joined;
}

std::string floats_text(const Tag& tag) {
  return join(tag.length / sizeof(float), kShownNumbers,
              [&](std::size_t i) { return number_text(*tag_float(tag, i)); });
}

std::string ints_text(const Tag& tag) {
  return join(tag.length / sizeof(std::int32_t), kShownNumbers,
              [&](std::size_t i) { return std::to_string(*tag_int(tag, i)); });
}

std::string bytes_text(const Tag& tag) {
  return join(tag.length, kShownBytes, [&](std::size_t i) {
    char text[4];
    std::snprintf(text, sizeof text, "%02x", unsigned{tag.payload[i]});
    return std::string(text);
  });
}

// Text and raw bytes bear the same type. Text ends with one to four zero bytes, at a length that is
// a multiple of four, and has no control characters.
bool looks_like_text(const Tag& tag) {
  const std::string_view text = tag_text(tag);
  if (tag.length % 4 != 0 || tag.length == text.size() || tag.length - text.size() > 4)
    return false;
  return printable(text) == text;
}

class TreeReader {
 public:
  TagNode read(const Tag& tag, std::size_t depth) {
    TagNode node;
    node.length = tag.length;
    switch (tag.type) {
      case kTagText:
        node.type = looks_like_text(tag) ? "text" : "bytes";
        node.value = looks_like_text(tag) ? cut_text(tag_text(tag)) : bytes_text(tag);
        break;
      case kTagInt:
        node.type = "int";
        node.value = ints_text(tag);
        break;
      case kTagFloat:
        node.type = "float";
        node.value = floats_text(tag);
        break;
      case kTagFloatArray:
        node.type = "floats";
        node.value = floats_text(tag);
        break;
      case kTagDictionary:
        node.type = "dictionary";
        read_children(tag, depth, node);
        break;
      case kTagList:
        node.type = "list";
        read_children(tag, depth, node);
        break;
      default:
        node.type = "type " + std::to_string(tag.type);
        node.value = bytes_text(tag);
    }
    return node;
  }

 private:
  void read_children(const Tag& parent, std::size_t depth, TagNode& node) {
    if (depth == kMaxDepth) {
      node.note = "not opened: too deep";
      return;
    }
    std::size_t seen = 0;
    bool keyed = parent.type == kTagDictionary;
    TagWalk walk(parent);
    while (walk.next()) {
      if (++elements_ > kMaxElements) {
        node.note = "the rest is not shown: too many elements";
        return;
      }
      seen += kTagHeaderBytes + walk.child.length;
      // A dictionary whose first child is no text is a small array: one child without a key.
      if (node.children.empty() && walk.child.type != kTagText) keyed = false;
      std::string key;
      if (keyed) {
        key = printable(tag_text(walk.child));
        if (!walk.next()) {
          node.note = "damaged: the key \"" + key + "\" has no value";
          return;
        }
        seen += kTagHeaderBytes + walk.child.length;
      }
      node.children.push_back(read(walk.child, depth + 1));
      node.children.back().key = key;
    }
    if (seen != parent.length) {
      node.note = "damaged: the last " + std::to_string(parent.length - seen) +
                  " bytes hold no whole element";
    }
  }

  std::size_t elements_ = 0;
};

}  // namespace

TagNode read_tag_tree(const Tag& root) {
  return TreeReader().read(root, 0);
}

}  // namespace ravu::tools
