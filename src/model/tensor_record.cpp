// Tensor record <-> Blob. Nothing is allocated before the record is known to hold enough values.
#include "model/tensor_record.h"

#include <algorithm>
#include <array>
#include <optional>
#include <span>
#include <vector>

#include "kernels/convert.h"
#include "model/tag_writer.h"

namespace ravu {
namespace {

struct Block {
  float offset;
  float step;
};

// Kept: a value that raises the greatest is not considered for the least, and the step divides by
// the number of values instead of the range of a byte. A block of one positive value therefore
// decodes to something else; files stay byte-stable.
Block measure(std::span<const float> values) {
  float greatest = 1.1754944e-38F;
  float least = 3.4028235e38F;
  for (const float v : values) {
    if (v > greatest) {
      greatest = v;
    } else if (v < least) {
      least = v;
    }
  }
  const double sum = static_cast<double>(least) + static_cast<double>(greatest);
  return {static_cast<float>(sum * 0.5), (greatest - least) / static_cast<float>(values.size())};
}

struct Quantised {
  std::vector<float> offsets;
  std::vector<float> steps;
  std::vector<std::uint8_t> bytes;
};

Quantised encode(std::span<const float> values) {
  Quantised coded;
  while (!values.empty()) {
    const auto block = values.first(std::min<std::size_t>(values.size(), kQuantBlock));
    const Block scale = measure(block);
    coded.offsets.push_back(scale.offset);
    coded.steps.push_back(scale.step);
    for (const float v : block) {
      const std::int32_t level = kernels::to_int32((v - scale.offset) / scale.step);
      coded.bytes.push_back(static_cast<std::uint8_t>(level & 0xFF));
    }
    values = values.subspan(block.size());
  }
  return coded;
}

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

std::uint8_t* write_tensor(const Blob* blob, bool quantise) {
  if (blob == nullptr || (blob->data == nullptr && blob->count > 0)) return nullptr;
  std::uint8_t* dims = make_list();
  for (const std::uint32_t word :
       {blob->dims[0], blob->dims[1], blob->dims[2], blob->dims[3], blob->count, blob->layout}) {
    dims = append(dims, make_int(static_cast<std::int32_t>(word)));
  }
  // Kept: "float_bits" is 32 for quantised values too.
  std::uint8_t* record = add(add(make_dictionary(), "float_bits", make_int(32)), "dims", dims);
  const std::span<const float> values(blob->data, blob->count);
  if (!quantise) return add(record, "data", make_floats(values));
  const Quantised coded = encode(values);
  record = add(record, "mean_f", make_floats(coded.offsets));
  record = add(record, "step_f", make_floats(coded.steps));
  return add(record, "data", make_bytes(coded.bytes));
}

}  // namespace ravu
