// The two orientations of the weights, and one matrix product for the whole batch.
#include "layers/FullyConnectLayer.h"

#include <cstdio>
#include <utility>

#include "graph/Workspace.h"
#include "kernels/kernels.h"
#include "kernels/workers.h"

namespace ravu {
namespace {

constexpr std::uint32_t kFloatMode = 0;
constexpr std::uint32_t kFixedPointMode = 3;

// Rewrites the matrix dims[0] x dims[1] as dims[1] x dims[0].
void transpose(Blob& blob, kernels::Workers& workers) {
  const std::uint32_t rows = blob.dims[0];
  const std::uint32_t columns = blob.dims[1];
  Blob turned;
  turned.dims = {columns, rows, 1, 1};
  turned.count = rows * columns;
  turned.layout = blob.layout;
  allocate(turned);
  kernels::transpose(blob.data, columns, rows, columns, turned.data, rows, workers);
  static_cast<Shape&>(blob) = turned;
  blob.storage = std::move(turned.storage);
  blob.data = blob.storage.get();
}

// Rows stored channel after channel become rows with the channels interleaved. They are rows per
// output afterwards.
void interleave_rows(FullyConnectLayer& layer) {
  const std::uint32_t channels = last_input(layer)->dims[3];
  if (layer.weights->layout != kPlanar || channels == 0) return;
  to_interleaved(*layer.weights, layer.weights->dims[1] / channels, channels);
  layer.weights->layout = kInterleaved;
  layer.weights_transposed = true;
}

// The features of an image that the product reads.
std::uint64_t features(const FullyConnectLayer& layer) {
  const bool per_output = layer.weights_transposed || layer.weights->layout == kPlanar;
  return layer.weights->dims[per_output ? 1 : 0];
}

bool ready(const FullyConnectLayer& layer) {
  return layer.weights && layer.weights->data != nullptr && !layer.weights_transposed &&
         layer.weights->layout == kInterleaved && has_data(layer) && fits(layer);
}

void forward_float(FullyConnectLayer& layer) {
  if (!ready(layer)) return;
  const Blob& input = *last_input(layer);
  Blob& output = *last_output(layer);
  const std::size_t outputs = output.dims[3];
  kernels::multiply(layer.weights->data, input.data, output.data, input.dims[0],
                    layer.weights->dims[0], outputs, layer.workspace->workers());
  if (layer.has_bias && layer.bias) {
    kernels::add_bias(output.data, 1, output.count, output.count, layer.bias->data,
                      layer.bias->count, 0);
  }
}

// The bias that the operator adds: one value per output. Any other count is added here.
const float* operator_bias(const FullyConnectLayer& layer) {
  const bool usual = layer.has_bias && layer.bias && layer.bias->count == layer.weights->dims[0];
  return usual ? layer.bias->data : nullptr;
}

// Makes the operator, once; it stays away when the library or the weights are not there, or the
// library refuses it.
void prepare_operator(FullyConnectLayer& layer) {
  const FixedPointLibrary* library = layer.workspace->fixed_point.get();
  if (library == nullptr || !*library) return;
  if (!layer.fixed_point) {
    if (!layer.weights || layer.weights->data == nullptr || !fits(layer)) return;
    const auto& dims = layer.weights->dims;
    FixedPointOperator made(library->fully_connect_create(fixpoint::kVersion), library->destroy);
    if (!library->fully_connect_configure(made.get(), static_cast<std::int32_t>(dims[0]),
                                          static_cast<std::int32_t>(dims[1]), layer.weights->data,
                                          operator_bias(layer), /*reserved=*/false) ||
        !library->fully_connect_finish(made.get(), kFixedPointWeightRange)) {
      return;
    }
    layer.fixed_point = std::move(made);
  }
  library->set_threads(layer.fixed_point.get(),
                       static_cast<std::int32_t>(layer.workspace->workers().threads()));
}

// The operator keeps its own weights, yet it runs only while the layer's stand as it was given
// them.
bool fixed_point_ready(const FullyConnectLayer& layer) {
  if (!layer.weights || layer.weights->data == nullptr || !layer.weights_transposed ||
      layer.weights->layout != kInterleaved || !has_data(layer) || !fits(layer)) {
    return false;
  }
  const std::uint64_t batch = last_input(layer)->dims[0];
  return batch * layer.weights->dims[0] <= last_output(layer)->count;
}

void forward_fixed_point(FullyConnectLayer& layer) {
  if (!layer.fixed_point) {
    std::fputs("FC fixpointfcop_ not initialized\n", stderr);
    return;
  }
  if (!fixed_point_ready(layer)) return;
  const FixedPointLibrary& library = *layer.workspace->fixed_point;
  const Blob& input = *last_input(layer);
  Blob& output = *last_output(layer);
  fixpoint::Operator* op = layer.fixed_point.get();
  if (!library.fully_connect_set_input(op, static_cast<std::int32_t>(input.dims[0]),
                                       static_cast<std::int32_t>(layer.weights->dims[1]),
                                       input.data, kFixedPointInputRange) ||
      !library.fully_connect_run(op, output.data, kFixedPointRounding)) {
    return;
  }
  if (layer.has_bias && layer.bias && operator_bias(layer) == nullptr) {
    kernels::add_bias(output.data, 1, output.count, output.count, layer.bias->data,
                      layer.bias->count, 0);
  }
}

}  // namespace

void turn_weights(FullyConnectLayer& layer, bool transposed) {
  interleave_rows(layer);
  if (layer.weights_transposed != transposed) {
    transpose(*layer.weights, layer.workspace->workers());
  }
  layer.weights_transposed = transposed;
}

Fit fits(const FullyConnectLayer& layer) {
  const Blob* input = last_input(layer);
  const Blob* output = last_output(layer);
  if (input == nullptr) return {"a fully connected layer needs an input"};
  if (layer.weights == nullptr) return {"weight: the tensor is not there"};
  const Blob& weights = *layer.weights;
  if (std::uint64_t{weights.dims[0]} * weights.dims[1] > weights.count) {
    return {"weight: dims describe more than the tensor holds"};
  }
  if (weights.layout == kPlanar && input->dims[3] == 0) return {"the input has no channels"};
  if (layer.bias && layer.bias->count == 0) return {"the bias holds no value"};
  if (output == nullptr) return {};
  const std::uint64_t k = features(layer);
  const std::uint64_t m = output->dims[3];
  if (k * m > std::uint64_t{weights.dims[0]} * weights.dims[1]) {
    return {"weight: the tensor holds fewer values than inputs times outputs"};
  }
  if (k * input->dims[0] > input->count) {
    return {"weight: asks for more features than the input has"};
  }
  if (m * input->dims[0] > output->count) return {"the output is smaller than batch times outputs"};
  return {};
}

bool FullyConnectLayer::Forward(std::uint32_t mode) {
  if (mode == kFloatMode) forward_float(*this);
  if (mode == kFixedPointMode) forward_fixed_point(*this);
  return true;
}

bool FullyConnectLayer::Setup(std::int32_t mode, std::vector<BlobPtr>&) {
  AllocateBlobs(/*in_place=*/false);
  if (mode != kFloatMode && mode != kFixedPointMode) return false;
  if (weights && weights->data != nullptr && last_input(*this) != nullptr) {
    turn_weights(*this, /*transposed=*/mode == kFixedPointMode);
  }
  if (mode == kFixedPointMode) prepare_operator(*this);
  return true;
}

void FullyConnectLayer::Reshape() {
  follow_batch();
}

void FullyConnectLayer::ReleaseWeights() {
  fixed_point.reset();
  weights.reset();
  bias.reset();
}

}  // namespace ravu
