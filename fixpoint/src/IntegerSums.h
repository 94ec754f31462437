// The sums of products of unsigned input bytes with signed weight bytes over every kernel window:
// what oneDNN does here. Its primitives are kept by shape, so that a run creates nothing
// but what it sees for the first time.
#pragma once

#include <cstdint>
#include <dnnl.hpp>
#include <map>
#include <tuple>
#include <vector>

namespace ravu::fixpoint {

struct KernelSizes {
  std::int64_t output_channels, input_channels;
  std::int64_t kernel_h, kernel_w;
  std::int64_t stride_h, stride_w;
};

// A padded input image and the windows in it. No window reaches beyond the image.
struct ImageSizes {
  std::int64_t height, width;
  std::int64_t rows, columns;
};

class IntegerSums {
 public:
  // Weights: one row per output channel, in the order kernel row, kernel column, input channel,
  // none beyond 64.
  IntegerSums(const KernelSizes& sizes, std::vector<std::int8_t> weights);

  // Whether no input can make a sum pass 32 bits.
  bool stay_in_range() const;

  std::int64_t weight_count() const { return static_cast<std::int64_t>(weights_.size()); }

  // The sum of each output channel's weights.
  const std::vector<std::int32_t>& weight_sums() const { return weight_sums_; }

  // Writes 32-bit sums, channels fastest, as bits into `sums`. Sums of small bytes (up to 127) may
  // come rounded to what single precision holds, those of greater ones (`full`: up to 255) are
  // exact. Works with as many threads as OpenMP is set to, which is `threads`. One byte behind
  // `bytes` must be readable.
  void compute(const ImageSizes& image, const std::uint8_t* bytes, bool full, int threads,
               float* sums);

  std::uint64_t executions() const { return executions_; }

 private:
  struct Prepared {
    dnnl::convolution_forward primitive;
    dnnl::memory::desc weights;
    dnnl::memory input, output;
  };
  using Key = std::tuple<std::int64_t, std::int64_t, int>;  // height, width, threads

  // One arrangement of the weights that some primitive wants: whole, and cut into parts that add up
  // to the weights and whose sums of full bytes are exact.
  struct Arranged {
    dnnl::memory::desc desc;
    dnnl::memory whole;
    std::vector<dnnl::memory> parts;
  };

  void compute_single(const ImageSizes& image, const std::uint8_t* bytes, int threads, float* sums);
  Prepared& prepare(const ImageSizes& image, int threads);
  Arranged& arrange(const dnnl::memory::desc& desc);
  dnnl::memory reordered(std::vector<std::int8_t>& weights, const dnnl::memory::desc& desc);
  std::vector<std::vector<std::int8_t>> cut_weights() const;
  void execute(Prepared& prepared, const dnnl::memory& weights);

  KernelSizes sizes_;
  std::vector<std::int8_t> weights_;
  std::vector<std::int16_t> single_weights_;  // the same, where one channel goes to one
  std::vector<std::int32_t> weight_sums_;
  std::int64_t greatest_sum_ = 0;  // of one output channel's magnitudes
  dnnl::engine engine_{dnnl::engine::kind::cpu, 0};
  dnnl::stream stream_{engine_};
  std::map<Key, Prepared> prepared_;
  std::vector<Arranged> arranged_;
  std::vector<std::int32_t> more_;  // the sums of a further part
  std::uint64_t executions_ = 0;
};

}  // namespace ravu::fixpoint
