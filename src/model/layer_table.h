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
  // Whether the finished layer stays inside its Blobs when it runs.
  Fit (*fits)(const BaseLayer& layer);
};

// One row for each keyword, in the order in which they are searched.
std::span<const LayerRow> layer_table();

// The row with this keyword in `table`; null when there is none.
const LayerRow* find_row(std::span<const LayerRow> table, std::string_view keyword);

}  // namespace ravu
