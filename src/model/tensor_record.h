// Tensor records: shape and values of a weight, bias or image, as floats or as bytes in blocks of
// 128 with one offset and one step per block.
#pragma once

#include "graph/Blob.h"
#include "model/tag_reader.h"

namespace ravu {

inline constexpr std::uint32_t kQuantBlock = 128;

// A new Blob with the record's dims and values, layout interleaved, without a name. Null, with a
// text in *broken_rule, when a key is missing or holds too few values.
BlobPtr read_tensor(const Tag& record, bool quantised, const char** broken_rule);

// A new record of the Blob (see tag_writer.h): plain floats, or quantised when `quantise` is set.
// Null when the Blob is null or holds no data, or when memory does not suffice.
std::uint8_t* write_tensor(const Blob* blob, bool quantise);

}  // namespace ravu
