// The rows of all layer classes. Adding a class adds one row here.
#include "model/layer_table.h"

#include <algorithm>
#include <iterator>

#include "layers/BatchNormLayer.h"
#include "layers/ConcatLayer.h"
#include "layers/ConvLayer.h"
#include "layers/DetectionOutputLayer.h"
#include "layers/EltWiseLayer.h"
#include "layers/FlattenLayer.h"
#include "layers/FullyConnectLayer.h"
#include "layers/LrnLayer.h"
#include "layers/NormalizeLayer.h"
#include "layers/PReluLayer.h"
#include "layers/PermuteLayer.h"
#include "layers/PoolingLayer.h"
#include "layers/PowerLayer.h"
#include "layers/PriorBoxLayer.h"
#include "layers/ReluLayer.h"
#include "layers/ReshapeLayer.h"
#include "layers/ScaleLayer.h"
#include "layers/SoftmaxLayer.h"
#include "model/records/records.h"

namespace ravu {
namespace {

template <class Layer>
Fit fits_as(const BaseLayer& layer) {
  return fits(static_cast<const Layer&>(layer));
}

constexpr LayerRow kRows[] = {
    {"conv", 2, "Conv", read_conv, write_conv, fits_as<ConvLayer>},
    {"gconv", 2, "GConv", read_grouped_conv, write_conv, fits_as<ConvLayer>},
    {"concat", 1, "concat", read_concat, write_concat, fits_as<ConcatLayer>},
    {"power", 11, "Power", read_power, write_power, fits_as<PowerLayer>},
    {"normalize", 9, "LRN", read_lrn, write_lrn, fits_as<LrnLayer>},
    {"neuron", 8, "FullyConnect", read_fully_connect, write_fully_connect,
     fits_as<FullyConnectLayer>},
    {"pool", 10, "Pooling", read_pooling, write_pooling, fits_as<PoolingLayer>},
    {"relu", 13, "ReLU", read_relu, write_relu, fits_as<ReluLayer>},
    {"prelu", 12, "PReLU", read_prelu, write_prelu, fits_as<PReluLayer>},
    {"eltwise", 7, "Eltwise", read_eltwise, write_eltwise, fits_as<EltWiseLayer>},
    {"bn", 3, "BatchNorm", read_batch_norm, write_batch_norm, fits_as<BatchNormLayer>},
    {"scale", 4, "Scale", read_scale, write_scale, fits_as<ScaleLayer>},
    {"flatten", 20, "Flatten", read_flatten, write_flatten, fits_as<FlattenLayer>},
    {"reshape", 19, "Reshape", read_reshape, write_reshape, fits_as<ReshapeLayer>},
    {"norm", 15, "normalize", read_normalize, write_normalize, fits_as<NormalizeLayer>},
    {"priorbox", 16, "PriorBox", read_prior_box, write_prior_box, fits_as<PriorBoxLayer>},
    {"permute", 18, "Permute", read_permute, write_permute, fits_as<PermuteLayer>},
    {"detectionout", 17, "DetectionOutput", read_detection_output, write_detection_output,
     fits_as<DetectionOutputLayer>},
    {"max", 14, "Softmax", read_softmax, write_softmax, fits_as<SoftmaxLayer>},
};

}  // namespace

std::span<const LayerRow> layer_table() {
  return kRows;
}

const LayerRow* find_row(std::span<const LayerRow> table, std::string_view keyword) {
  const auto row = std::find_if(table.begin(), table.end(),
                                [&](const LayerRow& r) { return r.keyword == keyword; });
  return row == table.end() ? nullptr : &*row;
}

const LayerRow* find_row(std::span<const LayerRow> table, std::uint32_t type) {
  const auto row =
      std::find_if(table.begin(), table.end(), [&](const LayerRow& r) { return r.type == type; });
  return row == table.end() ? nullptr : &*row;
}

}  // namespace ravu
