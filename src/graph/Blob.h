// The one tensor record of the engine: a shape, two counters, element storage and a name.
// Blobs are plain records; everything that is done to them is a free function declared here.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace ravu {

// How `data` is arranged. Interleaved: batch, row, column, channel fastest. Planar: batch, channel,
// row, column fastest (the model file calls it "BCHW").
inline constexpr std::uint32_t kInterleaved = 0;
inline constexpr std::uint32_t kPlanar = 1;

// No Blob may hold more elements than this.
inline constexpr std::uint32_t kMaxCount = 0x7FFFFFFF;

// Element storage starts at a multiple of this many bytes.
inline constexpr std::size_t kStorageAlignment = 4096;

struct Shape {
  std::array<std::uint32_t, 4> dims{1, 1, 1, 1};  // batch, height, width, channels
  std::uint32_t count = 1;                        // elements; usually the product of dims
  std::uint32_t layout = kInterleaved;
};

struct Blob : Shape {
  std::uint32_t consumers = 0;  // layers that read it; 0 marks a network output
  std::uint32_t producers = 0;  // layers that write it; above 1 in in-place chains
  float* data = nullptr;        // the elements: its own storage, or the lender's
  std::string name;
  std::shared_ptr<float> storage;  // keeps `data` alive: its own block, or the lender's
  Blob* lender = nullptr;          // set when the Blob shows another Blob's storage
  bool cleared_by_input = false;   // zeroed whenever the network is handed new input
  // While it is set, `reshape` lists the Blob here and gives it no storage: a shape change first
  // learns what all Blobs need.
  std::vector<Blob*>* deferred = nullptr;
};

// A Blob record that is released (storage included) when its holder goes.
using BlobPtr = std::unique_ptr<Blob>;

// The shape with these dims, its count their product; none when a dim is negative or the product
// of the dims before the first 0 passes kMaxCount: whoever loops over the outer dims relies on
// that. Dims are signed and 64 bits wide so that shape rules need no checks.
std::optional<Shape> make_shape(std::int64_t batch, std::int64_t height, std::int64_t width,
                                std::int64_t channels, std::uint32_t layout);

bool same_dims_and_layout(const Shape& a, const Shape& b);

// Whether the four dims describe no more elements than `count` has.
bool dims_within_count(const Shape& shape);

// Bytes that `allocate` and `assign` reserve for `count` elements.
std::size_t reserved_bytes(std::uint32_t count);

// Gives a Blob without data zeroed storage for its count. False, and nothing changes, when it
// has data already. Throws std::bad_alloc.
bool allocate(Blob& blob);

// Gives the Blob new storage for its count and copies count floats from `source` (null: zeros).
void assign(Blob& blob, const void* source);

// Gives the Blob a new shape and zeroed storage for it; contents are lost. Does nothing when the
// Blob has data and the dims and layout are the same. A borrower gets the shape and no data.
void reshape(Blob& blob, const Shape& shape);

// The second half of `reshape`: gives a Blob without data zeroed storage for its count, with
// nothing to spare. Throws std::bad_alloc.
void give_storage(Blob& blob);

// Turns planar storage into interleaved storage, block by block of plane_size x channels elements;
// an incomplete last block stays as it is. Does nothing for an interleaved Blob or a plane of one
// element. The caller clears `layout`.
void to_interleaved(Blob& blob, std::uint32_t plane_size, std::uint32_t channels);

// destination[i] = source[i] + factor * mean[i mod mean_count] for i < n. Nothing is done to the
// values when mean_count is 0.
void subtract_repeated(float* destination, const float* source, const float* mean, float factor,
                       std::size_t n, std::size_t mean_count);

// Gives back the Blob's storage, if any, and leaves it without data. May be called twice.
void free_storage(Blob& blob);

// Makes `blob` show the storage of `lender`, or of whom that one borrows from, instead of storage
// of its own. Nothing changes when that is `blob` itself: such a chain keeps its storage.
void borrow(Blob& blob, Blob& lender);

// Points a borrower at the data of the last lender of its chain; null where that one has fewer
// elements. Needed whenever a lender may have got other storage; until then the borrower shows the
// old one. Does nothing to a Blob that does not borrow.
void bind(Blob& blob);

}  // namespace ravu
