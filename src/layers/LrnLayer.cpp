// The layer's Blobs; the arithmetic is one kernel over the whole input.
#include "layers/LrnLayer.h"

#include <string>

#include "graph/PrimitiveBuilder.h"
#include "graph/Workspace.h"
#include "kernels/kernels.h"

namespace ravu {
namespace {

std::size_t scratch_floats(const LrnLayer& layer) {
  const Blob& input = *last_input(layer);
  return kernels::lrn_scratch_floats(input.count, input.dims[3]) *
         layer.workspace->workers().threads();
}

bool ready(const LrnLayer& layer) {
  return layer.scale != nullptr && has_data(layer) && fits(layer) &&
         scratch_floats(layer) <= layer.workspace->size();
}

}  // namespace

Fit fits(const LrnLayer& layer) {
  const Blob* input = last_input(layer);
  const Blob* output = last_output(layer);
  if (input == nullptr) return {"local response normalisation needs an input"};
  if (layer.size == 0) return {"size must be at least 1"};
  if (output != nullptr && output->count < input->count) {
    return {"the output is smaller than the input"};
  }
  if (input->count > 0 && input->dims[3] == 0) return {"the input has no channels"};
  return {};
}

bool LrnLayer::Forward(std::uint32_t) {
  if (!ready(*this)) return true;
  const Blob& input = *last_input(*this);
  fit_scratch(*scale, input);
  const kernels::Lrn lrn{.channels = input.dims[3],
                         .half = size / 2,
                         .factor = alpha / static_cast<float>(size),
                         .power = -beta,
                         .k = k};
  kernels::lrn(lrn, input.data, scale->data, last_output(*this)->data, input.count,
               workspace->scratch(), workspace->workers());
  return true;
}

void LrnLayer::AddPrimitives(cldnn_topology_impl* topology, cldnn_engine_impl* engine,
                             std::uint32_t data_type, Aliases& aliases) {
  if (!is_wired(*this)) return;
  PrimitiveBuilder::require(fits(*this));
  PrimitiveBuilder builder(*this, topology, engine, data_type, aliases);
  const std::string input = builder.map();
  cldnn_lrn_desc lrn{};
  lrn.size = size;
  lrn.k = k;
  lrn.alpha = alpha;
  lrn.beta = beta;
  lrn.region = CLDNN_LRN_ACROSS_CHANNELS;
  builder.add(cldnn::Kind::kLrn, lrn.header, {input}, builder.shape(input));
}

bool LrnLayer::Setup(std::int32_t, std::vector<BlobPtr>& params) {
  AllocateBlobs(/*in_place=*/false);
  const Blob* input = last_input(*this);
  if (input == nullptr) return true;
  scale = &shared_scratch(params, *input);
  workspace->reserve(scratch_floats(*this));
  return true;
}

void LrnLayer::Reshape() {
  reshape_like_input();
  const Blob* input = last_input(*this);
  if (input == nullptr || scale == nullptr) return;
  fit_scratch(*scale, *input);
  workspace->reserve(scratch_floats(*this));
}

void LrnLayer::ReleaseWeights() {
  scale = nullptr;
}

}  // namespace ravu
