// Which of the compiled variants the dispatch takes on this processor: asked of the dispatch
// itself.
#include "kernels/kernels.h"

#undef HWY_TARGET_INCLUDE
#define HWY_TARGET_INCLUDE "kernels/instruction_set.cpp"
#include <hwy/foreach_target.h>
#include <hwy/highway.h>

HWY_BEFORE_NAMESPACE();
namespace ravu::kernels::HWY_NAMESPACE {
namespace {

const char* instruction_set() {
  return hwy::TargetName(HWY_TARGET);
}

}  // namespace
}  // namespace ravu::kernels::HWY_NAMESPACE
HWY_AFTER_NAMESPACE();

#if HWY_ONCE
namespace ravu::kernels {

HWY_EXPORT(instruction_set);

const char* instruction_set() {
  return HWY_DYNAMIC_DISPATCH(instruction_set)();
}

}  // namespace ravu::kernels
#endif
