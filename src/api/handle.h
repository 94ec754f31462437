// What the exported functions share: the handles' real types, and the rule that no exception but
// the GPU library's leaves the engine.
#pragma once

#include <new>

#include "graph/ravuGraph.h"
#include "ravu/ravu.h"

namespace ravu {

inline Network* to_network(ravu_network* handle) {
  return reinterpret_cast<Network*>(handle);
}
inline ravu_network* to_handle(Network* network) {
  return reinterpret_cast<ravu_network*>(network);
}
inline Blob* to_blob(ravu_blob* handle) {
  return reinterpret_cast<Blob*>(handle);
}
inline ravu_blob* to_handle(Blob* blob) {
  return reinterpret_cast<ravu_blob*>(blob);
}

// Calls work(); answers `fallback` when memory does not suffice.
template <class Result, class Work>
Result or_fallback(Result fallback, Work work) {
  try {
    return work();
  } catch (const std::bad_alloc&) {
    return fallback;
  }
}

}  // namespace ravu
