// oneDNN's integer convolutions add in 32 bits, but hand each sum through single precision once.
// That is what happens next anyway where the sum is final; where an offset is still to be taken
// off, the weights are cut into parts whose sums stay below 2^24, which single precision holds.
#include "IntegerSums.h"

#include <algorithm>
#include <cstdlib>
#include <utility>

#include "quantise.h"
#include "single_channel.h"
#include "threads.h"

namespace ravu::fixpoint {
namespace {

using Tag = dnnl::memory::format_tag;
using Type = dnnl::memory::data_type;

constexpr std::int64_t kGreatestByte = 255;
constexpr std::int64_t kExactBelow = std::int64_t{1} << 24;
constexpr std::int64_t kSumLimit = std::int64_t{1} << 31;

// Shapes whose primitives are kept; another one empties the store.
constexpr std::size_t kMaxShapes = 16;

}  // namespace

IntegerSums::IntegerSums(const KernelSizes& sizes, std::vector<std::int8_t> weights)
    : sizes_(sizes), weights_(std::move(weights)) {
  const auto channels = static_cast<std::size_t>(sizes.output_channels);
  const std::size_t row = weights_.size() / channels;
  for (std::size_t c = 0; c < channels; ++c) {
    std::int32_t sum = 0;
    std::int64_t magnitudes = 0;
    for (std::size_t k = 0; k < row; ++k) {
      sum += weights_[c * row + k];
      magnitudes += std::abs(weights_[c * row + k]);
    }
    weight_sums_.push_back(sum);
    greatest_sum_ = std::max(greatest_sum_, magnitudes);
  }
}

bool IntegerSums::stay_in_range() const {
  return greatest_sum_ * kGreatestByte < kSumLimit;
}

void IntegerSums::compute(const ImageSizes& image, const std::uint8_t* bytes, bool full,
                          int threads, float* sums) {
  if (sizes_.input_channels == 1 && sizes_.output_channels == 1) {
    compute_single(image, bytes, threads, sums);
    return;
  }
  Prepared& prepared = prepare(image, threads);
  Arranged& weights = arrange(prepared.weights);
  // oneDNN takes all memory as writable; inputs are only read.
  prepared.input.set_data_handle(const_cast<std::uint8_t*>(bytes));
  prepared.output.set_data_handle(sums);
  if (!full || greatest_sum_ * kGreatestByte <= kExactBelow) {
    execute(prepared, weights.whole);
    return;
  }
  if (weights.parts.empty()) {
    for (auto& part : cut_weights()) weights.parts.push_back(reordered(part, weights.desc));
  }
  execute(prepared, weights.parts.front());
  const auto count = static_cast<std::size_t>(image.rows * image.columns * sizes_.output_channels);
  more_.resize(count);
  prepared.output.set_data_handle(more_.data());
  for (std::size_t part = 1; part < weights.parts.size(); ++part) {
    execute(prepared, weights.parts[part]);
    add_sums(sums, more_.data(), count);
  }
}

void IntegerSums::compute_single(const ImageSizes& image, const std::uint8_t* bytes, int threads,
                                 float* sums) {
  const auto size = [](std::int64_t n) { return static_cast<std::size_t>(n); };
  const SingleChannel s{size(sizes_.kernel_h), size(sizes_.kernel_w), size(sizes_.stride_h),
                        size(sizes_.stride_w), size(image.width),     size(image.columns)};
  if (single_weights_.empty()) single_weights_.assign(weights_.begin(), weights_.end());
  const std::size_t rows = size(image.rows);
  const std::size_t run = (rows + size(threads) - 1) / size(threads);
  share(threads, (rows + run - 1) / run, [&](std::size_t i) {
    single_channel_rows(s, bytes, single_weights_.data(), i * run, std::min((i + 1) * run, rows),
                        sums);
  });
  ++executions_;
}

IntegerSums::Prepared& IntegerSums::prepare(const ImageSizes& image, int threads) {
  const Key key{image.height, image.width, threads};
  const auto found = prepared_.find(key);
  if (found != prepared_.end()) return found->second;
  if (prepared_.size() >= kMaxShapes) {
    prepared_.clear();
    arranged_.clear();
  }
  const KernelSizes& s = sizes_;
  const dnnl::memory::desc input({1, s.input_channels, image.height, image.width}, Type::u8,
                                 Tag::nhwc);
  const dnnl::memory::desc weights({s.output_channels, s.input_channels, s.kernel_h, s.kernel_w},
                                   Type::s8, Tag::any);
  const dnnl::memory::desc output({1, s.output_channels, image.rows, image.columns}, Type::s32,
                                  Tag::nhwc);
  const dnnl::convolution_forward::primitive_desc description({dnnl::prop_kind::forward_inference,
                                                               dnnl::algorithm::convolution_direct,
                                                               input,
                                                               weights,
                                                               output,
                                                               {s.stride_h, s.stride_w},
                                                               {0, 0},
                                                               {0, 0}},
                                                              engine_);
  Prepared prepared{dnnl::convolution_forward(description), description.weights_desc(),
                    dnnl::memory(input, engine_, nullptr), dnnl::memory(output, engine_, nullptr)};
  return prepared_.emplace(key, std::move(prepared)).first->second;
}

IntegerSums::Arranged& IntegerSums::arrange(const dnnl::memory::desc& desc) {
  for (Arranged& arranged : arranged_) {
    if (arranged.desc == desc) return arranged;
  }
  arranged_.push_back({desc, reordered(weights_, desc), {}});
  return arranged_.back();
}

dnnl::memory IntegerSums::reordered(std::vector<std::int8_t>& weights,
                                    const dnnl::memory::desc& desc) {
  const KernelSizes& s = sizes_;
  dnnl::memory plain(
      {{s.output_channels, s.input_channels, s.kernel_h, s.kernel_w}, Type::s8, Tag::ohwi}, engine_,
      weights.data());
  dnnl::memory result(desc, engine_);
  dnnl::reorder(plain, result).execute(stream_, plain, result);
  stream_.wait();
  return result;
}

// Each output channel's weights, in order, fill one part after another.
std::vector<std::vector<std::int8_t>> IntegerSums::cut_weights() const {
  const auto channels = static_cast<std::size_t>(sizes_.output_channels);
  const std::size_t row = weights_.size() / channels;
  std::vector<std::vector<std::int8_t>> parts;
  for (std::size_t c = 0; c < channels; ++c) {
    std::size_t part = 0;
    std::int64_t magnitudes = 0;
    for (std::size_t i = c * row; i < (c + 1) * row; ++i) {
      magnitudes += std::abs(weights_[i]);
      if (magnitudes * kGreatestByte > kExactBelow) {
        magnitudes = std::abs(weights_[i]);
        ++part;
      }
      if (part == parts.size()) parts.emplace_back(weights_.size());
      parts[part][i] = weights_[i];
    }
  }
  return parts;
}

void IntegerSums::execute(Prepared& prepared, const dnnl::memory& weights) {
  prepared.primitive.execute(stream_, {{DNNL_ARG_SRC, prepared.input},
                                       {DNNL_ARG_WEIGHTS, weights},
                                       {DNNL_ARG_DST, prepared.output}});
  stream_.wait();
  ++executions_;
}

}  // namespace ravu::fixpoint
