// ravu_bench_machine THREADS: what the processor can do at most, as one line of JSON: multiply-adds
// in single precision ("gflops", two operations each) and reading memory ("gigabytes_per_second").
//
// Both are the best of several short runs, by all threads together, with the instruction set that
// the engine's kernels would choose too.
#include <algorithm>
#include <chrono>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <thread>
#include <vector>

#undef HWY_TARGET_INCLUDE
#define HWY_TARGET_INCLUDE "machine.cpp"
#include <hwy/foreach_target.h>
#include <hwy/highway.h>

HWY_BEFORE_NAMESPACE();
namespace ravu::bench::HWY_NAMESPACE {
namespace {

namespace hn = hwy::HWY_NAMESPACE;

std::size_t vector_lanes() {
  return hn::Lanes(hn::ScalableTag<float>());
}

// Twelve independent chains hide the latency; each step is one multiply-add of a vector in each.
float multiply_add(std::size_t steps) {
  const hn::ScalableTag<float> d;
  const auto factor = hn::Set(d, 0.999F);
  const auto term = hn::Set(d, 0.001F);
  auto a = hn::Iota(d, 0), b = hn::Iota(d, 1), c = hn::Iota(d, 2), e = hn::Iota(d, 3);
  auto f = hn::Iota(d, 4), g = hn::Iota(d, 5), h = hn::Iota(d, 6), i = hn::Iota(d, 7);
  auto j = hn::Iota(d, 8), k = hn::Iota(d, 9), l = hn::Iota(d, 10), m = hn::Iota(d, 11);
  for (std::size_t step = 0; step < steps; ++step) {
    a = hn::MulAdd(a, factor, term);
    b = hn::MulAdd(b, factor, term);
    c = hn::MulAdd(c, factor, term);
    e = hn::MulAdd(e, factor, term);
    f = hn::MulAdd(f, factor, term);
    g = hn::MulAdd(g, factor, term);
    h = hn::MulAdd(h, factor, term);
    i = hn::MulAdd(i, factor, term);
    j = hn::MulAdd(j, factor, term);
    k = hn::MulAdd(k, factor, term);
    l = hn::MulAdd(l, factor, term);
    m = hn::MulAdd(m, factor, term);
  }
  const auto left = hn::Add(hn::Add(hn::Add(a, b), hn::Add(c, e)), hn::Add(f, g));
  const auto right = hn::Add(hn::Add(hn::Add(h, i), hn::Add(j, k)), hn::Add(l, m));
  return hn::GetLane(hn::SumOfLanes(d, hn::Add(left, right)));
}

float sum(const float* values, std::size_t count) {
  const hn::ScalableTag<float> d;
  const std::size_t lanes = hn::Lanes(d);
  auto a = hn::Zero(d), b = hn::Zero(d), c = hn::Zero(d), e = hn::Zero(d);
  for (std::size_t i = 0; i + 4 * lanes <= count; i += 4 * lanes) {
    a = hn::Add(a, hn::LoadU(d, values + i));
    b = hn::Add(b, hn::LoadU(d, values + i + lanes));
    c = hn::Add(c, hn::LoadU(d, values + i + 2 * lanes));
    e = hn::Add(e, hn::LoadU(d, values + i + 3 * lanes));
  }
  return hn::GetLane(hn::SumOfLanes(d, hn::Add(hn::Add(a, b), hn::Add(c, e))));
}

}  // namespace
}  // namespace ravu::bench::HWY_NAMESPACE
HWY_AFTER_NAMESPACE();

#if HWY_ONCE
namespace ravu::bench {

HWY_EXPORT(vector_lanes);
HWY_EXPORT(multiply_add);
HWY_EXPORT(sum);

namespace {

constexpr int kRuns = 8;
constexpr std::size_t kSteps = 2'000'000;
constexpr std::size_t kChains = 12;
constexpr std::size_t kFloats = std::size_t{32} << 20;  // 128 MiB a thread, beyond any cache

// Results go here, so that no compiler leaves the work out.
volatile float sink;

// The shortest of several runs of task(thread) by all threads together.
template <class Task>
double best_seconds(std::size_t threads, const Task& task) {
  double best = 1e30;
  for (int run = 0; run < kRuns; ++run) {
    const auto start = std::chrono::steady_clock::now();
    std::vector<std::thread> others;
    for (std::size_t i = 1; i < threads; ++i) others.emplace_back([&task, i] { task(i); });
    task(0);
    for (std::thread& other : others) other.join();
    best = std::min(
        best, std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count());
  }
  return best;
}

void print_limits(std::size_t threads) {
  const auto lanes = HWY_DYNAMIC_DISPATCH(vector_lanes)();
  const double arithmetic =
      best_seconds(threads, [](std::size_t) { sink = HWY_DYNAMIC_DISPATCH(multiply_add)(kSteps); });
  const double operations = 2.0 * static_cast<double>(kSteps * kChains * lanes * threads);

  const std::vector<float> values(threads * kFloats, 1.0F);
  const double reading = best_seconds(threads, [&](std::size_t i) {
    sink = HWY_DYNAMIC_DISPATCH(sum)(values.data() + i * kFloats, kFloats);
  });
  const double bytes = static_cast<double>(values.size() * sizeof(float));
  std::printf("{\"gflops\": %.1f, \"gigabytes_per_second\": %.2f, \"vector_floats\": %zu}\n",
              operations / arithmetic * 1e-9, bytes / reading * 1e-9, lanes);
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
