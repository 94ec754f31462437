// The passes over floats are cut into blocks that threads share; blocks do not change results.
#include "Operator.h"

#include <algorithm>
#include <utility>

#include "threads.h"

namespace ravu::fixpoint {
namespace {

constexpr std::size_t kBlock = 16384;  // floats that one thread takes at a time
constexpr std::int64_t kFewProducts = std::int64_t{1} << 18;  // done before a thread wakes up
constexpr std::size_t kShortestRun = 64;  // parameters repeat until they are this many

std::size_t blocks_of(std::size_t n, std::size_t block) {
  return (n + block - 1) / block;
}

// The values as often as they fit kShortestRun, at least once.
template <class T>
std::vector<T> repeated(const std::vector<T>& values) {
  std::vector<T> result;
  do {
    result.insert(result.end(), values.begin(), values.end());
  } while (result.size() + values.size() <= kShortestRun);
  return result;
}

}  // namespace

bool Operator::set_threads(std::int32_t count) {
  if (count < 1 || count > kMaxThreads) return false;
  threads_ = count;
  return true;
}

bool Operator::quantise_weights_of(const KernelSizes& sizes, const float* weights, float range,
                                   std::span<const float> bias) {
  if (!within(range, 1, kGreatestWeight)) return false;
  const auto channels = static_cast<std::size_t>(sizes.output_channels);
  const auto row = static_cast<std::size_t>(sizes.kernel_h * sizes.kernel_w * sizes.input_channels);
  std::vector<std::int8_t> integers(channels * row);
  std::vector<float> steps(channels);
  for (std::size_t c = 0; c < channels; ++c) {
    steps[c] = quantise_weights(weights + c * row, row, range, integers.data() + c * row);
  }
  auto sums = std::make_unique<IntegerSums>(sizes, std::move(integers));
  if (!sums->stay_in_range()) return false;
  std::vector<std::int32_t> offsets = sums->weight_sums();
  for (std::int32_t& offset : offsets) offset *= kZeroPoint;
  weight_steps_ = repeated(steps);
  offsets_[0].assign(weight_steps_.size(), 0);
  offsets_[1] = repeated(offsets);
  steps_.bias =
      bias.empty() ? std::vector<float>() : repeated(std::vector(bias.begin(), bias.end()));
  sums_ = std::move(sums);
  return true;
}

int Operator::threads_for_floats(std::int64_t n) const {
  return n > static_cast<std::int64_t>(kBlock) ? threads_ : 1;
}

int Operator::threads_for_products(std::int64_t n) const {
  return n > kFewProducts ? threads_ : 1;
}

Extent Operator::extent(const float* values, std::size_t n) {
  extents_.resize(blocks_of(n, kBlock));
  share(threads_, extents_.size(), [&](std::size_t b) {
    extents_[b] = extent_of(values + b * kBlock, std::min(kBlock, n - b * kBlock));
  });
  Extent all;
  for (const Extent& part : extents_) {
    all.magnitude = std::max(all.magnitude, part.magnitude);
    all.signs = all.signs || part.signs;
  }
  return all;
}

void Operator::compute(const ImageSizes& image, const std::uint8_t* bytes, bool signs,
                       float* sums) {
  const int threads = threads_for_products(image.rows * image.columns * sums_->weight_count());
  const ThreadCount in_force(threads);
  sums_->compute(image, bytes, /*full=*/signs, threads, sums);
}

void Operator::finish_sums(float* sums, std::size_t n, bool signs, float input_step) {
  steps_.offsets = offsets_[signs ? 1 : 0];
  steps_.steps.resize(weight_steps_.size());
  for (std::size_t i = 0; i < weight_steps_.size(); ++i) {
    steps_.steps[i] = input_step * weight_steps_[i];
  }
  const std::size_t run = weight_steps_.size();
  const std::size_t block = std::max<std::size_t>(kBlock / run, 1) * run;
  share(threads_, blocks_of(n, block), [&](std::size_t b) {
    dequantise(sums + b * block, std::min(block, n - b * block), steps_);
  });
}

}  // namespace ravu::fixpoint
