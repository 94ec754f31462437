// Only the shape is this layer's own, and it is computed once, when the model is read.
#include "layers/ReshapeLayer.h"

#include <algorithm>

#include "graph/PrimitiveBuilder.h"

namespace ravu {

Shape reshape_record_shape(const ReshapeLayer& layer, const Shape& input) {
  // Beyond the largest count the inferred dimension is 0 however large the product is.
  constexpr std::uint64_t kEnough = std::uint64_t{kMaxCount} + 1;
  Shape shape = input;
  std::uint64_t product = 1;
  for (std::size_t i = 0; i < layer.dims.size(); ++i) {
    if (layer.dims[i] <= 0) continue;
    shape.dims[i] = static_cast<std::uint32_t>(layer.dims[i]);
    product = std::min(product * shape.dims[i], kEnough);
  }
  if (layer.inferred_axis >= 0 && layer.inferred_axis < 4) {
    shape.dims[static_cast<std::size_t>(layer.inferred_axis)] =
        static_cast<std::uint32_t>(input.count / product);
  }
  return shape;
}

Fit fits(const ReshapeLayer& layer) {
  if (layer.inputs.empty()) return {"reshape needs an input"};
  if (layer.inferred_axis > 3) return {"inferred_axis must be below 4"};
  return {};
}

void ReshapeLayer::AddPrimitives(cldnn_topology_impl* topology, cldnn_engine_impl* engine,
                                 std::uint32_t data_type, Aliases& aliases) {
  if (!is_wired(*this)) return;
  PrimitiveBuilder::require(fits(*this));
  PrimitiveBuilder builder(*this, topology, engine, data_type, aliases);
  const GpuShape from = builder.shape(builder.input());
  GpuShape to = shape_of(*last_output(*this));
  to.format = from.format;
  PrimitiveBuilder::require(
      {to.batch == from.batch ? nullptr : "a reshape must not change the batch"});
  if (to == from) {
    builder.alias_output(builder.input());
    return;
  }
  cldnn_reshape_desc reshape{};
  reshape.output_shape = make_tensor(to.batch, to.feature, to.x, to.y);
  builder.add(cldnn::Kind::kReshape, reshape.header, {builder.input()}, to);
}

bool ReshapeLayer::Setup(std::int32_t, std::vector<BlobPtr>&) {
  AllocateBlobs(/*in_place=*/true);
  return true;
}

}  // namespace ravu
