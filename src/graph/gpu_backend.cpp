// The translation runs once, layer by layer; a forward run hands over the input and takes back one
// result. Images of a batch lie innermost on the GPU: element p of image b at p * batch + b.
#include "graph/gpu_backend.h"

#include <algorithm>
#include <map>
#include <span>
#include <string>
#include <utility>
#include <vector>

#include "graph/PrimitiveBuilder.h"

namespace ravu {
namespace {

using cldnn::check_status;
using cldnn::Kind;

constexpr std::size_t kDetectionFloats = 7;
constexpr float kUnusedDetection = -1.0F;

// What another set-up left is undone: identifiers start anew, and consumers are what the model's
// wiring made them.
void start_graph(Network& network, const cldnn::Library& library) {
  network.aliases.clear();
  for (Blob* blob : network.gpu.counted_down) ++blob->consumers;
  network.gpu = GpuGraph{};
  network.gpu.library = &library;
  network.gpu.blobs = &network.blobs_by_name;
}

void start_handles(Network& network, cldnn::LibraryPtr library) {
  GpuHandles& handles = network.gpu_handles;
  if (handles.library != nullptr) {
    // Kept: what an earlier set-up made lives as long as the network.
    network.earlier_gpu_handles.push_back(std::exchange(handles, GpuHandles{}));
  }
  handles.library = std::move(library);
  handles.topology = cldnn::create_topology(*handles.library);
  handles.engine = cldnn::create_engine(*handles.library);
}

void add_input(Network& network) {
  cldnn_input_layout_desc input{};
  const GpuShape shape = shape_of(*network.input);
  input.layout = make_layout(shape, CLDNN_FLOAT32);
  add_primitive(network.gpu, network.gpu_handles.topology.get(), Kind::kInputLayout, input.header,
                network.input->name, {}, shape);
  network.data_type = CLDNN_FLOAT32;
}

// Input minus mean. The mean is uploaded once for each image of the batch.
void add_mean(Network& network) {
  Blob& mean = *network.mean;
  const Blob& input = *network.input;
  if (mean.layout == kPlanar) {
    // Kept: the layout word stays planar, so that a second GPU set-up reorders the mean again.
    to_interleaved(mean, input.dims[1] * input.dims[2], input.dims[3]);
  }
  const std::string id = fresh_id(network.gpu, input.name, network.aliases.size());
  network.aliases[input.name] = id;
  std::string mean_id = mean.name.empty() ? "data_mean" : mean.name;
  if (network.gpu.is_taken(mean_id)) mean_id = fresh_id(network.gpu, mean_id, 0);

  std::vector<float> values(input.count);
  for (std::size_t i = 0; i < values.size(); ++i) values[i] = mean.data[i % mean.count];
  if (input.dims[0] > 1) values = batch_innermost(values, input.dims[0]);
  cldnn_topology topology = network.gpu_handles.topology.get();
  add_data(network.gpu, topology, network.gpu_handles.engine.get(), network.data_type, mean_id,
           shape_of(input), values);

  cldnn_eltwise_desc subtraction{};
  subtraction.second_input = mean_id.c_str();
  subtraction.mode = CLDNN_ELTWISE_SUB;
  add_primitive(network.gpu, topology, Kind::kEltwise, subtraction.header, id, {input.name},
                shape_of(input));
}

void add_layers(Network& network, bool release_weights) {
  for (const auto& layer : network.layers) {
    layer->gpu = &network.gpu;
    layer->AddPrimitives(network.gpu_handles.topology.get(), network.gpu_handles.engine.get(),
                         network.data_type, network.aliases);
    if (release_weights) layer->ReleaseWeights();
  }
}

void build_network(Network& network, bool release_weights) {
  GpuHandles& handles = network.gpu_handles;
  add_input(network);
  const Blob* mean = network.mean.get();
  if (mean != nullptr && network.preprocess && mean->data != nullptr && mean->count != 0) {
    add_mean(network);
  }
  add_layers(network, release_weights);
  cldnn::Program program = cldnn::build_program(*handles.library, handles.engine, handles.topology);
  handles.gpu_network = cldnn::allocate_network(*handles.library, program);
  program.release();
}

void fill_input(const Blob& input, std::span<float> memory) {
  const std::size_t n = input.data == nullptr ? 0 : input.count;
  if (input.dims[0] <= 1) {
    std::copy_n(input.data, std::min(n, memory.size()), memory.begin());
    return;
  }
  const auto turned = batch_innermost({input.data, n}, input.dims[0]);
  std::copy_n(turned.begin(), std::min(n, memory.size()), memory.begin());
}

void hand_over_input(Network& network) {
  const GpuHandles& handles = network.gpu_handles;
  const cldnn::Library& library = *handles.library;
  const Blob& input = *network.input;
  cldnn::Memory memory = cldnn::allocate_memory(library, handles.engine.get(),
                                                make_layout(shape_of(input), network.data_type));
  cldnn::LockedMemory floats(library, memory);
  fill_input(input, {floats.data(), floats.size()});
  floats.unlock();
  check_status(library, "set network input failed", [&](cldnn_status* status) {
    library.set_network_input(handles.gpu_network.get(), input.name.c_str(), memory.get(), status);
  });
  memory.release();
}

// The names stand one after another, each with its zero byte.
std::vector<std::string> output_names(const GpuHandles& handles) {
  const cldnn::Library& library = *handles.library;
  cldnn_network network = handles.gpu_network.get();
  constexpr const char* kMessage = "get network output ids failed";
  std::size_t needed = 0;
  check_status(library, kMessage, [&](cldnn_status* status) {
    library.get_network_output_names(network, nullptr, 0, &needed, status);
    // That the buffer is too small is what was asked for.
    if (*status == CLDNN_INVALID_ARG) *status = CLDNN_SUCCESS;
  });
  std::vector<char> text(needed + 1);
  check_status(library, kMessage, [&](cldnn_status* status) {
    library.get_network_output_names(network, text.data(), needed, &needed, status);
  });
  std::vector<std::string> names;
  for (const char* name = text.data(); *name != 0; name += names.back().size() + 1) {
    names.emplace_back(name);
  }
  return names;
}

std::map<std::string, cldnn::Output> execute(const GpuHandles& handles) {
  const cldnn::Library& library = *handles.library;
  check_status(library, "network execute failed", [&](cldnn_status* status) {
    library.execute_network(handles.gpu_network.get(), nullptr, 0, status);
  });
  std::map<std::string, cldnn::Output> outputs;
  for (const std::string& name : output_names(handles)) {
    outputs.emplace(name, cldnn::get_output(library, handles.gpu_network, name));
  }
  return outputs;
}

// Rows that detection output fills, one after another; the rest of the Blob is zero, as on the
// processor. clDNN gives every image rows of its own and marks the unused ones.
void copy_detections(std::span<const float> rows, std::span<float> to) {
  float* next = to.data();
  float* end = to.data() + to.size();
  for (std::size_t r = 0; r + kDetectionFloats <= rows.size(); r += kDetectionFloats) {
    const auto room = static_cast<std::size_t>(end - next);
    if (rows[r] == kUnusedDetection || room < kDetectionFloats) continue;
    next = std::copy_n(rows.data() + r, kDetectionFloats, next);
  }
  std::fill(next, end, 0.0F);
}

bool is_detections(const cldnn_layout& layout) {
  const auto* sizes = layout.size.sizes;
  return layout.format == CLDNN_FORMAT_BFYX && sizes[CLDNN_BATCH] == 1 &&
         sizes[CLDNN_FEATURE] == 1 && sizes[CLDNN_X] == kDetectionFloats;
}

// Takes what both have room for; the rest of the Blob stays as it is.
void copy_result(const cldnn_layout& layout, std::span<const float> from, Blob& blob) {
  if (blob.data == nullptr) return;
  const std::span<float> to(blob.data, blob.count);
  const std::size_t batch = blob.dims[0];
  if (is_detections(layout)) {
    copy_detections(from, to);
  } else if (layout.format == CLDNN_FORMAT_YXFB && batch > 1) {
    const std::size_t item = to.size() / batch;
    const std::size_t common = std::min(item, from.size() / batch);
    for (std::size_t b = 0; b < batch; ++b) {
      for (std::size_t k = 0; k < common; ++k) to[b * item + k] = from[k * batch + b];
    }
  } else {
    std::copy_n(from.begin(), std::min(from.size(), to.size()), to.begin());
  }
}

// Kept: of several outputs the one whose identifier comes first in text order is taken, and it goes
// into the last layer's Blob, whichever layer it comes from.
void fetch_result(Network& network, std::map<std::string, cldnn::Output>& outputs) {
  const cldnn::Library& library = *network.gpu_handles.library;
  if (outputs.empty()) return;
  const cldnn::Output& first = outputs.begin()->second;
  check_status(library, "wait event failed",
               [&](cldnn_status* status) { library.wait_for_event(first.event.get(), status); });
  cldnn::LockedMemory floats(library, first.memory);
  Blob* blob = network.layers.empty() ? nullptr : last_output(*network.layers.back());
  if (blob != nullptr) copy_result(floats.layout(), {floats.data(), floats.size()}, *blob);
  floats.unlock();
}

}  // namespace

bool setup_gpu(Network& network, bool release_weights) {
  network.layout = kInterleaved;
  return setup_gpu(network, release_weights, cldnn::load_library(cldnn::library_candidates()));
}

bool setup_gpu(Network& network, bool release_weights, cldnn::LibraryPtr library) {
  network.layout = kInterleaved;
  start_graph(network, *library);
  const std::shared_ptr<float> mean = network.mean ? network.mean->storage : nullptr;
  try {
    start_handles(network, std::move(library));
    build_network(network, release_weights);
  } catch (...) {
    // The next set-up finds the mean in the order that its layout word says.
    if (network.mean) {
      network.mean->storage = mean;
      network.mean->data = mean.get();
    }
    throw;
  }
  return true;
}

std::vector<std::string> gpu_output_names(const Network& network) {
  std::vector<std::string> names = output_names(network.gpu_handles);
  std::sort(names.begin(), names.end());
  return names;
}

void forward_gpu(Network& network) {
  if (!network.gpu_handles.gpu_network) return;
  hand_over_input(network);
  auto outputs = execute(network.gpu_handles);
  fetch_result(network, outputs);
  for (auto& [name, output] : outputs) {
    output.memory.release();
    output.event.release();
  }
}

}  // namespace ravu
