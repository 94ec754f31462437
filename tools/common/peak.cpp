// Each thread keeps enough sums in registers that every multiply-add can start before the one
// before it has ended.
#include "common/peak.h"

#include <algorithm>
#include <chrono>
#include <vector>

#undef HWY_TARGET_INCLUDE
#define HWY_TARGET_INCLUDE "common/peak.cpp"
#include <hwy/foreach_target.h>
#include <hwy/highway.h>

HWY_BEFORE_NAMESPACE();
namespace ravu::tools::HWY_NAMESPACE {
namespace {

namespace hn = hwy::HWY_NAMESPACE;

constexpr std::size_t kSums = 12;

// Writes a value that depends on all of the multiply-adds, so that none of them can be left out.
void multiply_and_add(std::size_t multiply_adds, float* result) {
  const hn::ScalableTag<float> d;
  const auto factor = hn::Set(d, 0.999F);
  hn::Vec<decltype(d)> sums[kSums];
#pragma GCC unroll 12
  for (std::size_t i = 0; i < kSums; ++i) sums[i] = hn::Set(d, static_cast<float>(i));
  const std::size_t rounds = multiply_adds / (kSums * hn::Lanes(d));
  for (std::size_t round = 0; round < rounds; ++round) {
#pragma GCC unroll 12
    for (std::size_t i = 0; i < kSums; ++i) sums[i] = hn::MulAdd(sums[i], factor, factor);
  }
  auto sum = sums[0];
  for (std::size_t i = 1; i < kSums; ++i) sum = hn::Add(sum, sums[i]);
  *result = hn::GetLane(hn::SumOfLanes(d, sum));
}

}  // namespace
}  // namespace ravu::tools::HWY_NAMESPACE
HWY_AFTER_NAMESPACE();

#if HWY_ONCE
namespace ravu::tools {
namespace {

HWY_EXPORT(multiply_and_add);

// Of one thread; a whole number of rounds for every vector length.
constexpr std::size_t kMultiplyAdds = std::size_t{3} << 26;

}  // namespace

std::uint64_t peak_multiply_adds(std::size_t threads) {
  return std::uint64_t{kMultiplyAdds} * threads;
}

double time_peak(kernels::Workers& workers) {
  std::vector<float> results(workers.threads());
  const auto start = std::chrono::steady_clock::now();
  workers.run(workers.threads(), [&](std::size_t index, std::size_t) {
    HWY_DYNAMIC_DISPATCH(multiply_and_add)(kMultiplyAdds, &results[index]);
  });
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

}  // namespace ravu::tools
#endif
