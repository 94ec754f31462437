// The text of a load failure: where, which key, which rule.
#include "model/load_state.h"

namespace ravu {

void LoadState::fail(std::string_view key, std::string_view rule) {
  if (failed) return;
  failed = true;
  reason = where;
  if (!key.empty()) reason.append(reason.empty() ? "" : ": ").append(key);
  reason.append(reason.empty() ? "" : ": ").append(rule);
}

}  // namespace ravu
