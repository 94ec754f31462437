// Linux gives them on request; where there is no such call nothing is done.
#include "kernels/large_pages.h"

#ifdef __linux__
#include <sys/mman.h>

#include <cstdint>
#endif

namespace ravu::kernels {

void prefer_large_pages([[maybe_unused]] void* memory, [[maybe_unused]] std::size_t bytes) {
#ifdef __linux__
  constexpr std::size_t kWorthwhile = std::size_t{4} << 20;
  constexpr std::uintptr_t kPage = 4096;
  if (bytes < kWorthwhile) return;
  const std::uintptr_t skipped = (kPage - reinterpret_cast<std::uintptr_t>(memory) % kPage) % kPage;
  madvise(static_cast<char*>(memory) + skipped, bytes - skipped, MADV_HUGEPAGE);
#endif
}

}  // namespace ravu::kernels
