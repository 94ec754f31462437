// Convolution, plain and grouped, with square kernels. Each group of input channels has its own
// weights and bias; the groups' output channels stand one group after another.
#pragma once

#include <optional>
#include <vector>

#include "graph/BaseLayer.h"
#include "graph/fixed_point_library.h"
#include "kernels/conv_plan.h"
#include "kernels/kernels.h"

namespace ravu {

class ConvLayer : public BaseLayer {
 public:
  // One per group. Weights: one row per output channel of the group, in the order kernel row,
  // kernel column, input channel. A group without bias has a null one.
  std::vector<BlobPtr> weights;
  std::vector<BlobPtr> biases;
  kernels::ConvPlan plan;         // for run mode 0
  bool single_precision = false;  // whether the last Setup was for run mode 0
  bool kernels_transposed = false;
  std::int32_t stride_w = 1, stride_h = 1;
  std::int32_t pad_w = 0, pad_h = 0;
  std::int32_t kernel_w = 0, kernel_h = 0;
  std::int32_t dilation_w = 1, dilation_h = 1;
  std::int32_t groups = 1;
  std::int32_t output_channels = 0;  // of one group
  bool has_bias = false;
  std::vector<FixedPointOperator> operators;  // one per group; empty until set up for run mode 3

  ConvLayer() { takes_steps = true; }

  bool Forward(std::uint32_t mode) override;
  void AddPrimitives(cldnn_topology_impl* topology, cldnn_engine_impl* engine,
                     std::uint32_t data_type, Aliases& aliases) override;
  bool Setup(std::int32_t mode, std::vector<BlobPtr>& params) override;
  void Reshape() override;
  void ReleaseWeights() override;
};

// The output shape of a model record: with the dilation term for a plain convolution, without it
// for a grouped one. None when a size would be negative or too large, or a stride is not positive.
std::optional<Shape> conv_record_shape(const ConvLayer& layer, const Shape& input, bool grouped);

// What the processor path computes on this input; meaningful when `fits`.
kernels::ConvSizes conv_sizes(const ConvLayer& layer, const Shape& input, const Shape& output);

// How the layer is computed in run mode 0, for which it has been set up.
kernels::ConvForm conv_form(const ConvLayer& layer);

// Whether every group has its weights.
bool has_weights(const ConvLayer& layer);

// Whether they hold all that the processor path reads, too.
bool has_whole_weights(const ConvLayer& layer, const kernels::ConvSizes& sizes);

// Brings weights whose rows are stored channel after channel into the order above.
void interleave_weights(ConvLayer& layer);

Fit fits(const ConvLayer& layer);

// Run mode 3. Makes the operators, once; there are none when the library or the weights are not
// there, or the library refuses one.
void prepare_operators(ConvLayer& layer);

// Scratch memory that forward_fixed_point uses, once the operators are there.
std::size_t fixed_point_scratch_floats(const ConvLayer& layer, const kernels::ConvSizes& sizes,
                                       const Blob& output);

// A group whose operator refuses the input's sizes leaves its part of the output alone.
void forward_fixed_point(ConvLayer& layer);

}  // namespace ravu
