// Typed access to the keys of one record. `get_` takes a default for a missing key, `need_` marks
// the load as failed; both mark it when the value is too short for its use.
#pragma once

#include <cstdint>
#include <string_view>
#include <vector>

#include "graph/Blob.h"
#include "model/load_state.h"
#include "model/tag_reader.h"

namespace ravu {

struct Record {
  Tag dictionary;
  LoadState* state;
};

Tag need_tag(const Record& record, std::string_view key);
Record need_record(const Record& record, std::string_view key);

std::int32_t need_int(const Record& record, std::string_view key);
std::int32_t get_int(const Record& record, std::string_view key, std::int32_t absent);
float get_float(const Record& record, std::string_view key, float absent);
std::string_view need_text(const Record& record, std::string_view key);

// A small array: a dictionary element that holds one child without a key, whose payload is the
// array. The int form has four entries.
std::vector<float> need_floats(const Record& record, std::string_view key);
std::array<std::int32_t, 4> need_four_ints(const Record& record, std::string_view key);

// A tensor record whose values the file stores quantised when the model says so, and one that is
// always stored as floats. The Blob gets the network's layout. Null when the load has failed.
BlobPtr need_quantised_tensor(const Record& record, std::string_view key);
BlobPtr need_tensor(const Record& record, std::string_view key);

}  // namespace ravu
