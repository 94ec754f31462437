// Storage and element order of Blobs. Storage is counted by reference, so a shape change that
// fails half way can put the old storage back; no block is ever released by hand.
#include "graph/Blob.h"

#include <algorithm>
#include <cstring>
#include <new>
#include <utility>

#include "kernels/large_pages.h"

#if __has_include(<sanitizer/asan_interface.h>)
#include <sanitizer/asan_interface.h>
#else
#define ASAN_POISON_MEMORY_REGION(start, size) ((void)(start), (void)(size))
#define ASAN_UNPOISON_MEMORY_REGION(start, size) ((void)(start), (void)(size))
#endif

namespace ravu {
namespace {

std::size_t round_up_to_64(std::size_t bytes) {
  return bytes % 64 == 0 ? bytes : (bytes + 64) & ~std::size_t{63};
}

// `reserved` bytes of which the first count floats may be touched; those are copied from `source`
// (null: zeros).
std::shared_ptr<float> make_storage(std::size_t reserved, std::uint32_t count,
                                    const void* source = nullptr) {
  if (reserved == 0) return nullptr;
  constexpr auto alignment = std::align_val_t{kStorageAlignment};
  auto* data = static_cast<float*>(::operator new(reserved, alignment));
  const std::size_t used = std::size_t{count} * sizeof(float);
  kernels::prefer_large_pages(data, used);
  if (source == nullptr) {
    std::memset(data, 0, used);
  } else {
    std::memcpy(data, source, used);
  }
  ASAN_POISON_MEMORY_REGION(reinterpret_cast<char*>(data) + used, reserved - used);
  return {data, [reserved](float* released) {
            ASAN_UNPOISON_MEMORY_REGION(released, reserved);
            ::operator delete(released, alignment);
          }};
}

void install(Blob& blob, std::shared_ptr<float> storage) {
  blob.storage = std::move(storage);
  blob.data = blob.storage.get();
}

// The last lender of the chain that starts at `blob`. Chains are halved on the way, so that a
// long one is not walked again and again.
Blob& root_of(Blob& blob) {
  Blob* b = &blob;
  for (; b->lender != nullptr; b = b->lender) {
    if (b->lender->lender != nullptr) b->lender = b->lender->lender;
  }
  return *b;
}

}  // namespace

std::optional<Shape> make_shape(std::int64_t batch, std::int64_t height, std::int64_t width,
                                std::int64_t channels, std::uint32_t layout) {
  Shape shape;
  shape.layout = layout;
  std::uint64_t product = 1;
  std::size_t i = 0;
  bool empty = false;
  for (const std::int64_t dim : {batch, height, width, channels}) {
    if (dim < 0 || dim > kMaxCount) return std::nullopt;
    empty = empty || dim == 0;
    shape.dims[i++] = static_cast<std::uint32_t>(dim);
    if (!empty) product *= static_cast<std::uint64_t>(dim);
    if (product > kMaxCount) return std::nullopt;
  }
  shape.count = empty ? 0 : static_cast<std::uint32_t>(product);
  return shape;
}

bool same_dims_and_layout(const Shape& a, const Shape& b) {
  return a.dims == b.dims && a.layout == b.layout;
}

bool dims_within_count(const Shape& shape) {
  const auto product =
      make_shape(shape.dims[0], shape.dims[1], shape.dims[2], shape.dims[3], shape.layout);
  return product && product->count <= shape.count;
}

// Kept: four times the needed bytes are reserved; one time would do.
std::size_t reserved_bytes(std::uint32_t count) {
  return round_up_to_64(std::size_t{count} * sizeof(float) * 4);
}

bool allocate(Blob& blob) {
  if (blob.data != nullptr) return false;
  install(blob, make_storage(reserved_bytes(blob.count), blob.count));
  return true;
}

void assign(Blob& blob, const void* source) {
  install(blob, make_storage(reserved_bytes(blob.count), blob.count, source));
}

void reshape(Blob& blob, const Shape& shape) {
  // Kept: the counts are not compared, so a Blob of the same dims keeps its old count.
  if (blob.data != nullptr && same_dims_and_layout(blob, shape)) return;
  free_storage(blob);
  static_cast<Shape&>(blob) = shape;
  if (blob.lender != nullptr) return;
  if (blob.deferred != nullptr) {
    blob.deferred->push_back(&blob);
  } else {
    give_storage(blob);
  }
}

void give_storage(Blob& blob) {
  if (blob.data != nullptr) return;
  install(blob, make_storage(round_up_to_64(std::size_t{blob.count} * sizeof(float)), blob.count));
}

void to_interleaved(Blob& blob, std::uint32_t plane_size, std::uint32_t channels) {
  if (blob.layout == kInterleaved || plane_size == 1 || blob.data == nullptr) return;
  auto turned = make_storage(round_up_to_64(std::size_t{blob.count} * sizeof(float)), blob.count);
  const std::uint64_t block = std::uint64_t{plane_size} * channels;
  const std::uint64_t blocks = block == 0 ? 0 : blob.count / block;
  const float* source = blob.data;
  for (std::uint64_t b = 0; b < blocks; ++b) {
    float* to = turned.get() + b * block;
    for (std::uint32_t c = 0; c < channels; ++c) {
      for (std::uint32_t p = 0; p < plane_size; ++p) to[std::size_t{p} * channels + c] = *source++;
    }
  }
  std::copy_n(source, blob.count - blocks * block, turned.get() + blocks * block);
  install(blob, std::move(turned));
}

void subtract_repeated(float* destination, const float* source, const float* mean, float factor,
                       std::size_t n, std::size_t mean_count) {
  if (destination != source) std::copy(source, source + n, destination);
  if (mean_count == 0) return;
  for (std::size_t start = 0; start < n; start += mean_count) {
    const std::size_t run = std::min(mean_count, n - start);
    for (std::size_t i = 0; i < run; ++i) destination[start + i] += factor * mean[i];
  }
}

void free_storage(Blob& blob) {
  blob.storage.reset();
  blob.data = nullptr;
}

void borrow(Blob& blob, Blob& lender) {
  Blob& root = root_of(lender);
  if (&root == &blob) return;
  blob.lender = &root;
  bind(blob);
}

void bind(Blob& blob) {
  if (blob.lender == nullptr) return;
  const Blob& root = root_of(blob);
  blob.storage = root.count >= blob.count ? root.storage : nullptr;
  blob.data = blob.storage.get();
}

}  // namespace ravu
