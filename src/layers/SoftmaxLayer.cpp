// The choice of the group that sums to 1.
#include "layers/SoftmaxLayer.h"

#include <string>
#include <utility>

#include "graph/PrimitiveBuilder.h"
#include "kernels/kernels.h"

namespace ravu {
namespace {

std::size_t group_length(const Shape& input) {
  return input.dims[3] != 1 ? input.dims[3] : std::size_t{input.dims[1]} * input.dims[2];
}

}  // namespace

Fit fits(const SoftmaxLayer& layer) {
  const Blob* input = last_input(layer);
  const Blob* output = last_output(layer);
  if (input == nullptr) return {"softmax needs an input"};
  if (output != nullptr && output->count < input->count) {
    return {"the output is smaller than the input"};
  }
  if (input->count > 0 && group_length(*input) == 0) return {"the input has a dimension of 0"};
  return {};
}

bool SoftmaxLayer::Forward(std::uint32_t) {
  const Blob* input = last_input(*this);
  Blob* output = last_output(*this);
  if (!has_data(*this) || !fits(*this)) return true;
  kernels::softmax(input->data, output->data, input->count, group_length(*input));
  return true;
}

void SoftmaxLayer::AddPrimitives(cldnn_topology_impl* topology, cldnn_engine_impl* engine,
                                 std::uint32_t data_type, Aliases& aliases) {
  if (!is_wired(*this)) return;
  PrimitiveBuilder::require(fits(*this));
  PrimitiveBuilder builder(*this, topology, engine, data_type, aliases);
  const Blob& blob = *last_input(*this);
  const bool whole_images = blob.dims[3] == 1 || std::uint64_t{blob.dims[1]} * blob.dims[2] == 1;
  const std::string input = whole_images ? builder.input() : builder.map();
  GpuShape shape = builder.shape(input);
  // clDNN puts the channels of a single pixel along x.
  if (shape.x == 1 && shape.y == 1) std::swap(shape.feature, shape.x);
  cldnn_softmax_desc softmax{};
  softmax.dimension = whole_images ? CLDNN_SOFTMAX_FYX : CLDNN_SOFTMAX_F;
  builder.add(cldnn::Kind::kSoftmax, softmax.header, {input}, shape);
}

void SoftmaxLayer::Reshape() {
  reshape_like_input();
}

}  // namespace ravu
