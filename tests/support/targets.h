// Runs a test body once for each instruction set that the vector kernels were compiled for and this
// processor has, the plain fallback included.
#pragma once

#include <gtest/gtest.h>
#include <hwy/targets.h>

namespace ravu::test {

template <class Body>
void for_each_target(Body body) {
  auto targets = hwy::SupportedAndGeneratedTargets();
  targets.push_back(HWY_STATIC_TARGET);
  targets.push_back(std::int64_t{1} << 62);  // none of them: the fallback at the table's end
  for (const std::int64_t target : targets) {
    hwy::GetChosenTarget().Update(target);
    SCOPED_TRACE(hwy::TargetName(target));
    body();
  }
  hwy::GetChosenTarget().DeInit();
}

}  // namespace ravu::test
