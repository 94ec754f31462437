// Tensor record <-> Blob. Nothing is allocated before the record is known to hold enough values.
#include "model/tensor_record.h"

#include <algorithm>
#include <array>
#include <optional>
#include <vector>

namespace ravu {
namespace {

// The record's shape: up to four dims, further entries ignored; the dims that are not given are 1.
// None when there are no "dims" or they describe too many elements.
std::optional<Shape> read_shape(const Tag& record) {
  const Tag list = get_tag_from_memory(record, "dims");
  if (!list) return std::nullopt;
  std::array<std::int64_t, 4> dims{1, 1, 1, 1};
  std::size_t given = 0;
  for (TagWalk walk(list); given < dims.size() && walk.next();) {
    const auto dim = tag_int(walk.child);
    if (!dim) return std::nullopt;
    dims[given++] = *dim;
  }
  return make_shape(dims[0], dims[1], dims[2], dims[3], kInterleaved);
}

std::vector<float> decode(const Tag& data, const Tag& offsets, const Tag& steps,
                          std::uint32_t count) {
  std::vector<float> values(count);
  for (std::uint32_t i = 0; i < count; ++i) {
    const auto byte = static_cast<std::int8_t>(data.payload[i]);
    const std::uint32_t block = i / kQuantBlock;
    values[i] = static_cast<float>(byte) * *tag_float(steps, block) + *tag_float(offsets, block);
  }
  return values;
}

}  // namespace

BlobPtr read_tensor(const Tag& record, bool quantised, const char** broken_rule) {
  const auto shape = read_shape(record);
  const Tag data = get_tag_from_memory(record, "data");
  *broken_rule = nullptr;
  if (!shape) {
    *broken_rule = "the tensor needs \"dims\" that describe fewer than 2^31 elements";
  } else if (!data || data.length / (quantised ? 1 : sizeof(float)) < shape->count) {
    *broken_rule = "the tensor's \"data\" holds fewer values than its \"dims\" ask for";
  }
  if (*broken_rule != nullptr) return nullptr;

  auto blob = std::make_unique<Blob>();
  static_cast<Shape&>(*blob) = *shape;
  if (!quantised) {
    assign(*blob, data.payload);
    return blob;
  }
  const Tag offsets = get_tag_from_memory(record, "mean_f");
  const Tag steps = get_tag_from_memory(record, "step_f");
  const std::size_t blocks = (std::size_t{shape->count} + kQuantBlock - 1) / kQuantBlock;
  if (!offsets || !steps || std::min(offsets.length, steps.length) / sizeof(float) < blocks) {
    *broken_rule = "the quantised tensor needs one \"mean_f\" and one \"step_f\" for each block";
    return nullptr;
  }
  assign(*blob, decode(data, offsets, steps, shape->count).data());
  return blob;
}

}  // namespace ravu
