// Owning, outputs, shape changes and the order of release.
#include "graph/ravuGraph.h"

#include <algorithm>
#include <cstring>
#include <new>
#include <unordered_map>
#include <unordered_set>
#include <utility>

#include "graph/fusion.h"

#ifdef _WIN32
#include <windows.h>
#else
#include <unistd.h>
#endif

namespace ravu {
namespace {

// Every Blob's shape and storage before a shape change. Unless the change is committed, they are
// put back: storage is counted by reference, so the old blocks live as long as this record. Putting
// back needs no memory. Until the commit no Blob gets new storage, so that a change which is
// refused has asked for none.
class ShapeChange {
 public:
  explicit ShapeChange(const Network& network) {
    // From here on nothing throws: every Blob that defers is one that the destructor knows.
    blobs_.reserve(1 + network.graph_blobs.size() + network.params.size());
    remember(*network.input);
    for (const BlobPtr& blob : network.graph_blobs) remember(*blob);
    for (const BlobPtr& blob : network.params) remember(*blob);
  }
  ShapeChange(const ShapeChange&) = delete;
  ShapeChange& operator=(const ShapeChange&) = delete;

  ~ShapeChange() {
    for (Saved& saved : blobs_) {
      saved.blob->deferred = nullptr;
      if (committed_) continue;
      static_cast<Shape&>(*saved.blob) = saved.shape;
      saved.blob->storage = std::move(saved.storage);
      saved.blob->data = saved.data;
    }
  }

  // Throws std::bad_alloc; nothing is committed then.
  void commit() {
    for (Blob* blob : deferred_) give_storage(*blob);
    committed_ = true;
  }

 private:
  struct Saved {
    Blob* blob;
    Shape shape;
    std::shared_ptr<float> storage;
    float* data;
  };

  void remember(Blob& blob) {
    blobs_.push_back({&blob, blob, blob.storage, blob.data});
    blob.deferred = &deferred_;
  }

  std::vector<Saved> blobs_;
  std::vector<Blob*> deferred_;
  bool committed_ = false;
};

// How many times each Blob is read by layers that also write it. A layer that works in place does
// not by itself consume its Blob.
std::unordered_map<const Blob*, std::uint32_t> count_in_place_reads(const Network& network) {
  std::unordered_map<const Blob*, std::uint32_t> reads;
  for (const auto& layer : network.layers) {
    const std::unordered_set<const Blob*> written(layer->outputs.begin(), layer->outputs.end());
    for (const Blob* input : layer->inputs) {
      if (written.count(input) != 0) ++reads[input];
    }
  }
  return reads;
}

void release_handles(GpuHandles& handles) {
  handles.topology.release();
  handles.gpu_network.release();
  handles.engine.release();
}

}  // namespace

void Network::set_input(BlobPtr blob) {
  input = std::move(blob);
}

void Network::set_mean(BlobPtr blob) {
  mean = std::move(blob);
}

void Network::add_layer(std::unique_ptr<BaseLayer> layer) {
  layer->workspace = &workspace;
  layers.push_back(std::move(layer));
}

void Network::add_label(std::string_view text) {
  auto copy = std::make_unique<char[]>(text.size() + 1);
  std::memcpy(copy.get(), text.data(), text.size());
  labels.push_back(copy.get());
  copy.release();
}

Blob& Network::add_blob(const Shape& shape, std::string_view name) {
  graph_blobs.push_back(std::make_unique<Blob>());
  Blob& blob = *graph_blobs.back();
  static_cast<Shape&>(blob) = shape;
  blob.name = name;
  blobs_by_name.insert_or_assign(blob.name, &blob);
  return blob;
}

void Network::collect_outputs() {
  auto in_place_reads = count_in_place_reads(*this);
  for (const auto& layer : layers) {
    for (Blob* output : layer->outputs) {
      if (output->consumers != in_place_reads[output]) continue;
      allocate(*output);
      // Kept: a Blob that several layers write is listed once for each of them.
      outputs.push_back(output);
    }
  }
}

void Network::change_input_shape(const Shape& shape) {
  ShapeChange change(*this);
  reshape(*input, shape);
  for (const auto& layer : layers) layer->Reshape();
  if (storage_bytes() > memory_limit) throw std::bad_alloc();
  change.commit();
  bind_borrowers();
  link_followers(*this);
}

void Network::clear_for_input() {
  for (const BlobPtr& blob : params) {
    if (blob->cleared_by_input && blob->data != nullptr) std::fill_n(blob->data, blob->count, 0.0F);
  }
}

void Network::bind_borrowers() {
  for (const BlobPtr& blob : graph_blobs) bind(*blob);
  bind(*input);
}

std::uint64_t Network::storage_bytes() const {
  std::uint64_t floats = input ? input->count : 0;
  if (mean) floats += mean->count;
  for (const BlobPtr& blob : graph_blobs) floats += blob->lender == nullptr ? blob->count : 0;
  for (const BlobPtr& blob : params) floats += blob->count;
  return floats * sizeof(float);
}

void Network::release_weights() {
  unlink_followers(*this);
  while (!params.empty()) params.pop_back();
  for (const auto& layer : layers) layer->ReleaseWeights();
}

void Network::release() {
  mean.reset();
  if (input) free_storage(*input);
  release_handles(gpu_handles);
  for (; !earlier_gpu_handles.empty(); earlier_gpu_handles.pop_back()) {
    release_handles(earlier_gpu_handles.back());
  }
  while (!layers.empty()) layers.pop_back();
  while (!params.empty()) params.pop_back();
  for (; !labels.empty(); labels.pop_back()) delete[] labels.back();
  outputs.clear();
  aliases.clear();
  blobs_by_name.clear();
  // Layers point at these records until they are gone, so the records come last.
  graph_blobs.clear();
  input.reset();
}

std::uint64_t machine_memory() {
#ifdef _WIN32
  MEMORYSTATUSEX status{};
  status.dwLength = sizeof status;
  GlobalMemoryStatusEx(&status);
  return status.ullTotalPhys;
#else
  return static_cast<std::uint64_t>(sysconf(_SC_PHYS_PAGES)) *
         static_cast<std::uint64_t>(sysconf(_SC_PAGE_SIZE));
#endif
}

}  // namespace ravu
