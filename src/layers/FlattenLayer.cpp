// Only the shape is this layer's own.
#include "layers/FlattenLayer.h"

#include "graph/PrimitiveBuilder.h"

namespace ravu {

std::optional<Shape> flatten_shape(const Shape& input) {
  if (input.dims[0] == 0) return std::nullopt;
  return make_shape(input.dims[0], 1, 1, input.count / input.dims[0], input.layout);
}

Fit fits(const FlattenLayer& layer) {
  if (layer.inputs.empty()) return {"flatten needs an input"};
  return {};
}

void FlattenLayer::AddPrimitives(cldnn_topology_impl* topology, cldnn_engine_impl* engine,
                                 std::uint32_t data_type, Aliases& aliases) {
  if (!is_wired(*this)) return;
  PrimitiveBuilder::require(fits(*this));
  PrimitiveBuilder builder(*this, topology, engine, data_type, aliases);
  builder.alias_output(builder.input());
}

bool FlattenLayer::Setup(std::int32_t, std::vector<BlobPtr>&) {
  AllocateBlobs(/*in_place=*/true);
  return true;
}

void FlattenLayer::Reshape() {
  const Blob* input = last_input(*this);
  Blob* output = last_output(*this);
  if (input == nullptr || output == nullptr || output->count == input->count) return;
  // Kept: only the count follows the input; the dims stay those of the loaded model.
  Shape shape = *output;
  shape.count = input->count;
  // Without storage first, or the equal dims would keep the old one.
  free_storage(*output);
  reshape(*output, shape);
}

}  // namespace ravu
