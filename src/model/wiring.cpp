// Names to Blobs. The longest known prefix of a name is found in the ordered map without trying
// every length.
#include "model/wiring.h"

#include <algorithm>
#include <cstdio>
#include <string>

namespace ravu {
namespace {

// The Blob whose name is the longest prefix of `name`. The greatest entry that does not come after
// `name` is that prefix, or else no prefix longer than what both have in common can exist.
Blob* find_longest_prefix(const Network& network, std::string_view name) {
  const auto& blobs = network.blobs_by_name;
  for (;;) {
    auto entry = blobs.upper_bound(name);
    if (entry == blobs.begin()) return nullptr;
    --entry;
    const std::string& known = entry->first;
    const auto common =
        std::mismatch(name.begin(), name.end(), known.begin(), known.end()).second - known.begin();
    if (static_cast<std::size_t>(common) == known.size()) return entry->second;
    name = name.substr(0, static_cast<std::size_t>(common));
  }
}

}  // namespace

void wire_inputs(const Record& record, const char* label, BaseLayer& layer) {
  const Tag names = get_tag_from_memory(record.dictionary, "input_layers");
  for (TagWalk walk(names); walk.next();) {
    const std::string_view name = tag_text(walk.child);
    Blob* blob = find_longest_prefix(*record.state->network, name);
    if (blob == nullptr) {
      std::printf("[WARNING]\t%s still not hit %s. TODO need to do something\n", label,
                  std::string(name).c_str());
      continue;
    }
    layer.inputs.push_back(blob);
    ++blob->consumers;
  }
}

void wire_outputs(const Record& record, const std::optional<Shape>& shape, BaseLayer& layer) {
  const Tag names = get_tag_from_memory(record.dictionary, "output_layers");
  for (TagWalk walk(names); walk.next();) {
    Network& network = *record.state->network;
    const std::string_view name = tag_text(walk.child);
    const auto known = network.blobs_by_name.find(name);
    const bool is_new = known == network.blobs_by_name.end();
    if (is_new && !shape) {
      record.state->fail({}, "the output would have a negative size or 2^31 elements and more");
      return;
    }
    Blob& blob = is_new ? network.add_blob(*shape, name) : *known->second;
    layer.outputs.push_back(&blob);
    ++blob.producers;
  }
}

}  // namespace ravu
