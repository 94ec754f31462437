// The rows of all layer classes. Adding a class adds one row here.
#include "model/layer_table.h"

#include <algorithm>
#include <iterator>

#include "layers/ConvLayer.h"
#include "layers/FullyConnectLayer.h"
#include "layers/PoolingLayer.h"
#include "layers/ReluLayer.h"
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
    {"neuron", 8, "FullyConnect", read_fully_connect, write_fully_connect,
     fits_as<FullyConnectLayer>},
    {"pool", 10, "Pooling", read_pooling, write_pooling, fits_as<PoolingLayer>},
    {"relu", 13, "ReLU", read_relu, write_relu, fits_as<ReluLayer>},
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
