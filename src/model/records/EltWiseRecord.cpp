// Record "eltwise".
#include <cstdio>
#include <string>

#include "layers/EltWiseLayer.h"
#include "model/records/records.h"

namespace ravu {
namespace {

std::int32_t operation_code(std::string_view word) {
  if (word == "sum") return EltWiseLayer::kSum;
  if (word == "prod") return EltWiseLayer::kProduct;
  if (word == "max") return EltWiseLayer::kMax;
  // Kept: the layer is built all the same.
  std::fprintf(stderr, "Unknow eltwise operation %s\n", std::string(word).c_str());
  return EltWiseLayer::kMax;
}

}  // namespace

LayerPtr read_eltwise(const Record& record, const LayerRow& row) {
  auto layer = make_layer<EltWiseLayer>(row);
  const Tag word = need_tag(record, "operation");
  if (word) layer->operation = operation_code(tag_text(word));
  return wire(record, row, std::move(layer), shape_of_input);
}

// Kept: an operation without a name is left out, though the reader insists on one.
std::uint8_t* write_eltwise(const BaseLayer& layer, bool) {
  const std::int32_t operation = static_cast<const EltWiseLayer&>(layer).operation;
  std::uint8_t* record = make_record("eltwise");
  if (operation == EltWiseLayer::kSum) record = add(record, "operation", make_text("sum"));
  if (operation == EltWiseLayer::kMax) record = add(record, "operation", make_text("max"));
  if (operation == EltWiseLayer::kProduct) record = add(record, "operation", make_text("prod"));
  return record;
}

}  // namespace ravu
