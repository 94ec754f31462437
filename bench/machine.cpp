// ravu_bench_machine THREADS: what the processor can do at most, as one line of JSON: arithmetic in
// single precision ("gflops", two operations for each multiply-add) and reading memory
// ("gigabytes_per_second"). Both are the best of several short runs by all threads together, with
// the instruction set that the engine's kernels would choose too.
#include <algorithm>
#include <chrono>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <vector>

#include "common/peak.h"
#include "kernels/workers.h"

#undef HWY_TARGET_INCLUDE
#define HWY_TARGET_INCLUDE "machine.cpp"
#include <hwy/foreach_target.h>
#include <hwy/highway.h>

HWY_BEFORE_NAMESPACE();
namespace ravu::bench::HWY_NAMESPACE {
namespace {

namespace hn = hwy::HWY_NAMESPACE;

std::size_t vector_floats() {
  return hn::Lanes(hn::ScalableTag<float>());
}

// Four sums, so that no addition waits for the one before it.
float sum(const float* values, std::size_t count) {
  const hn::ScalableTag<float> d;
  const std::size_t lanes = hn::Lanes(d);
  auto first = hn::Zero(d), second = hn::Zero(d), third = hn::Zero(d), fourth = hn::Zero(d);
  for (std::size_t i = 0; i + 4 * lanes <= count; i += 4 * lanes) {
    first = hn::Add(first, hn::LoadU(d, values + i));
    second = hn::Add(second, hn::LoadU(d, values + i + lanes));
    third = hn::Add(third, hn::LoadU(d, values + i + 2 * lanes));
    fourth = hn::Add(fourth, hn::LoadU(d, values + i + 3 * lanes));
  }
  return hn::GetLane(hn::SumOfLanes(d, hn::Add(hn::Add(first, second), hn::Add(third, fourth))));
}

}  // namespace
}  // namespace ravu::bench::HWY_NAMESPACE
HWY_AFTER_NAMESPACE();

#if HWY_ONCE
namespace ravu::bench {

HWY_EXPORT(vector_floats);
HWY_EXPORT(sum);

namespace {

constexpr int kRuns = 6;
constexpr std::size_t kFloats = std::size_t{32} << 20;  // 128 MiB a thread, beyond any cache

// Seconds that all threads together take to read a share of the values each.
double time_reading(kernels::Workers& workers, const std::vector<float>& values) {
  std::vector<float> sums(workers.threads());
  const auto start = std::chrono::steady_clock::now();
  workers.run(workers.threads(), [&](std::size_t index, std::size_t) {
    sums[index] = HWY_DYNAMIC_DISPATCH(sum)(values.data() + index * kFloats, kFloats);
  });
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

void print_limits(std::size_t threads) {
  kernels::Workers workers;
  workers.set_threads(threads);
  const std::vector<float> values(threads * kFloats, 1.0F);
  double arithmetic = 1e30, reading = 1e30;
  for (int run = 0; run < kRuns; ++run) {
    arithmetic = std::min(arithmetic, tools::time_peak(workers));
    reading = std::min(reading, time_reading(workers, values));
  }
  const double operations = 2.0 * static_cast<double>(tools::peak_multiply_adds(threads));
  const double bytes = static_cast<double>(values.size() * sizeof(float));
  std::printf("{\"gflops\": %.1f, \"gigabytes_per_second\": %.2f, \"vector_floats\": %zu}\n",
              operations / arithmetic * 1e-9, bytes / reading * 1e-9,
              HWY_DYNAMIC_DISPATCH(vector_floats)());
}

}  // namespace
}  // namespace ravu::bench

int main(int argc, char** argv) {
  const int threads = argc == 2 ? std::atoi(argv[1]) : 0;
  if (threads < 1 || threads > 1024) {
    std::fputs("usage: ravu_bench_machine THREADS\n", stderr);
    return 2;
  }
  ravu::bench::print_limits(static_cast<std::size_t>(threads));
  return 0;
}
#endif
