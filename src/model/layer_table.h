// The table of layer classes: everything that the loader and the writer need to know about a class
// stands in one row.
#pragma once

#include <cstdint>
#include <memory>
#include <span>
#include <string_view>

#include "graph/BaseLayer.h"
#include "model/record.h"

namespace ravu {

struct LayerRow {
  std::string_view keyword;  // the record's "class"
  std::uint32_t type;        // BaseLayer::type
  const char* label;         // the name that warnings print
  // Makes the layer from its record and wires it; null when it cannot be built yet.
  std::unique_ptr<BaseLayer> (*read)(const Record& record, const LayerRow& row);
  // A new record of the layer (see tag_writer.h) with its class and keys, without the names that it
  // is wired by. Null when a tensor has been released or memory does not suffice.
  std::uint8_t* (*write)(const BaseLayer& layer, bool quantise);
  // Whether the finished layer stays inside its Blobs when it runs.
  Fit (*fits)(const BaseLayer& layer);
};

// One row for each keyword, in the order in which they are searched.
std::span<const LayerRow> layer_table();

// The row with this keyword in `table`; null when there is none.
const LayerRow* find_row(std::span<const LayerRow> table, std::string_view keyword);

// The first row with this type code; null when the class has no record.
const LayerRow* find_row(std::span<const LayerRow> table, std::uint32_t type);

}  // namespace ravu
