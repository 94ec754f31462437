// The loop of element-wise kernels, compiled once per instruction set with the source that includes
// it; hence the guard that Highway toggles.
#if defined(RAVU_KERNELS_FOR_EACH_VECTOR_INL_H_) == defined(HWY_TARGET_TOGGLE)
#ifdef RAVU_KERNELS_FOR_EACH_VECTOR_INL_H_
#undef RAVU_KERNELS_FOR_EACH_VECTOR_INL_H_
#else
#define RAVU_KERNELS_FOR_EACH_VECTOR_INL_H_
#endif

#include <hwy/highway.h>

HWY_BEFORE_NAMESPACE();
namespace ravu::kernels::HWY_NAMESPACE {
namespace {

// Calls step(d, i) for whole vectors of n elements, then for the rest one by one.
template <class Step>
void for_each_vector(std::size_t n, Step step) {
  const hwy::HWY_NAMESPACE::ScalableTag<float> d;
  const hwy::HWY_NAMESPACE::CappedTag<float, 1> one;
  const std::size_t lanes = hwy::HWY_NAMESPACE::Lanes(d);
  std::size_t i = 0;
  for (; i + lanes <= n; i += lanes) step(d, i);
  for (; i < n; ++i) step(one, i);
}

}  // namespace
}  // namespace ravu::kernels::HWY_NAMESPACE
HWY_AFTER_NAMESPACE();

#endif
