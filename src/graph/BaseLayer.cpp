// What all layers share: storage for their Blobs and the two common shape rules.
#include "graph/BaseLayer.h"

#include <algorithm>
#include <iterator>

namespace ravu {
namespace {

// A borrower shows its lender's storage and never gets any of its own.
bool lacks_storage(const Blob* blob) {
  return blob->data == nullptr && blob->lender == nullptr;
}

}  // namespace

BaseLayer::~BaseLayer() {
  for (std::uint32_t i = 0; i < owned_count; ++i) free_storage(*owned[i]);
}

bool BaseLayer::Forward(std::uint32_t) {
  return true;
}

void BaseLayer::AddPrimitives(cldnn_topology_impl*, cldnn_engine_impl*, std::uint32_t, Aliases&) {}

bool BaseLayer::Setup(std::int32_t, std::vector<BlobPtr>&) {
  AllocateBlobs(/*in_place=*/false);
  return true;
}

void BaseLayer::Reshape() {
  Blob* input = last_input(*this);
  Blob* output = last_output(*this);
  if (input == nullptr || output == nullptr) return;
  if (output->dims[0] != input->dims[0]) reshape(*output, *input);
}

void BaseLayer::ReleaseWeights() {}

void BaseLayer::AllocateBlobs(bool in_place) {
  prepared = true;
  std::vector<Blob*> empty;
  std::copy_if(inputs.begin(), inputs.end(), std::back_inserter(empty), lacks_storage);
  if (!in_place) {
    std::copy_if(outputs.begin(), outputs.end(), std::back_inserter(empty), lacks_storage);
  }
  if (!empty.empty()) {
    auto all = std::make_unique<Blob*[]>(owned_count + empty.size());
    std::copy_n(owned.get(), owned_count, all.get());
    owned = std::move(all);
    for (Blob* blob : empty) {
      if (allocate(*blob) && blob->data != nullptr) owned[owned_count++] = blob;
    }
  }
  if (in_place && !inputs.empty()) {
    for (Blob* output : outputs) borrow(*output, *inputs.back());
  }
}

void BaseLayer::reshape_like_input() {
  const Blob* input = last_input(*this);
  Blob* output = last_output(*this);
  if (input == nullptr || output == nullptr) return;
  if (!same_dims_and_layout(*output, *input)) reshape(*output, *input);
}

void BaseLayer::follow_batch() {
  const Blob* input = last_input(*this);
  Blob* output = last_output(*this);
  if (input == nullptr || output == nullptr || output->dims[0] == 0) return;
  const std::uint64_t count = std::uint64_t{output->count / output->dims[0]} * input->dims[0];
  if (output->dims[0] == input->dims[0] || count > kMaxCount) return;
  Shape shape = *output;
  shape.dims[0] = input->dims[0];
  shape.count = static_cast<std::uint32_t>(count);
  reshape(*output, shape);
}

Blob* last_input(const BaseLayer& layer) {
  return layer.inputs.empty() ? nullptr : layer.inputs.back();
}

Blob* last_output(const BaseLayer& layer) {
  return layer.outputs.empty() ? nullptr : layer.outputs.back();
}

bool is_wired(const BaseLayer& layer) {
  return !layer.inputs.empty() && !layer.outputs.empty();
}

bool has_data(const BaseLayer& layer) {
  const Blob* input = last_input(layer);
  const Blob* output = last_output(layer);
  if (!layer.prepared || input == nullptr || output == nullptr) return false;
  return input->data != nullptr && output->data != nullptr && output->count > 0;
}

bool all_have_data(const std::vector<Blob*>& blobs) {
  return std::all_of(blobs.begin(), blobs.end(),
                     [](const Blob* b) { return b->data != nullptr || b->count == 0; });
}

Blob& shared_scratch(std::vector<BlobPtr>& params, const Shape& shape) {
  for (const BlobPtr& blob : params) {
    if (same_dims_and_layout(*blob, shape)) return *blob;
  }
  params.push_back(std::make_unique<Blob>());
  static_cast<Shape&>(*params.back()) = shape;
  allocate(*params.back());
  return *params.back();
}

void fit_scratch(Blob& scratch, const Shape& shape) {
  const bool same = same_dims_and_layout(scratch, shape) && scratch.count == shape.count;
  if (same && scratch.data != nullptr) return;
  free_storage(scratch);
  reshape(scratch, shape);
}

}  // namespace ravu
