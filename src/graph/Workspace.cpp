// The scratch area is replaced, not grown: its contents mean nothing between layers.
#include "graph/Workspace.h"

#include <new>

namespace ravu {

void Workspace::reserve(std::size_t floats) {
  if (floats <= size_) return;
  constexpr auto alignment = std::align_val_t{64};
  area_.reset(static_cast<float*>(::operator new(floats * sizeof(float), alignment)),
              [](float* area) { ::operator delete(area, alignment); });
  size_ = floats;
}

}  // namespace ravu
