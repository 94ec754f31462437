// Large memory pages for large arrays: fewer page faults while they are filled, fewer misses of the
// address tables while they are read.
#pragma once

#include <cstddef>

namespace ravu::kernels {

// Asks the system for large pages behind memory that nobody has touched yet. A wish: nothing else
// changes when it cannot be fulfilled, and small arrays do not make it.
void prefer_large_pages(void* memory, std::size_t bytes);

}  // namespace ravu::kernels
