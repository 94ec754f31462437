// An array of floats that begins at a whole vector of any processor. Not initialised.
#pragma once

#include <cstddef>
#include <memory>
#include <new>

#include "kernels/large_pages.h"

namespace ravu::kernels {

class AlignedFloats {
 public:
  AlignedFloats() = default;

  // Throws std::bad_alloc.
  explicit AlignedFloats(std::size_t size)
      : floats_(static_cast<float*>(::operator new(size * sizeof(float), kAlignment))),
        size_(size) {
    prefer_large_pages(floats_.get(), size * sizeof(float));
  }

  float* data() const { return floats_.get(); }
  std::size_t size() const { return size_; }
  explicit operator bool() const { return floats_ != nullptr; }

 private:
  static constexpr auto kAlignment = std::align_val_t{64};
  struct Release {
    void operator()(float* floats) const { ::operator delete(floats, kAlignment); }
  };

  std::unique_ptr<float, Release> floats_;
  std::size_t size_ = 0;
};

}  // namespace ravu::kernels
