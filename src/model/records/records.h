// The readers and writers of all layer classes; each pair stands in its own file beside this one. A
// reader makes the layer, reads its keys, wires its inputs, computes the output shape and wires its
// outputs.
#pragma once

#include <memory>
#include <utility>

#include "graph/BaseLayer.h"
#include "model/layer_table.h"
#include "model/record.h"
#include "model/tag_writer.h"
#include "model/tensor_record.h"
#include "model/wiring.h"

namespace ravu {

using LayerPtr = std::unique_ptr<BaseLayer>;

LayerPtr read_batch_norm(const Record& record, const LayerRow& row);
LayerPtr read_concat(const Record& record, const LayerRow& row);
LayerPtr read_conv(const Record& record, const LayerRow& row);
LayerPtr read_detection_output(const Record& record, const LayerRow& row);
LayerPtr read_eltwise(const Record& record, const LayerRow& row);
LayerPtr read_flatten(const Record& record, const LayerRow& row);
LayerPtr read_fully_connect(const Record& record, const LayerRow& row);
LayerPtr read_grouped_conv(const Record& record, const LayerRow& row);
LayerPtr read_lrn(const Record& record, const LayerRow& row);
LayerPtr read_normalize(const Record& record, const LayerRow& row);
LayerPtr read_permute(const Record& record, const LayerRow& row);
LayerPtr read_pooling(const Record& record, const LayerRow& row);
LayerPtr read_power(const Record& record, const LayerRow& row);
LayerPtr read_prelu(const Record& record, const LayerRow& row);
LayerPtr read_prior_box(const Record& record, const LayerRow& row);
LayerPtr read_relu(const Record& record, const LayerRow& row);
LayerPtr read_reshape(const Record& record, const LayerRow& row);
LayerPtr read_scale(const Record& record, const LayerRow& row);
LayerPtr read_softmax(const Record& record, const LayerRow& row);

// The writers, keys in the order in which they are written.
std::uint8_t* write_batch_norm(const BaseLayer& layer, bool quantise);
std::uint8_t* write_concat(const BaseLayer& layer, bool quantise);
std::uint8_t* write_conv(const BaseLayer& layer, bool quantise);
std::uint8_t* write_detection_output(const BaseLayer& layer, bool quantise);
std::uint8_t* write_eltwise(const BaseLayer& layer, bool quantise);
std::uint8_t* write_flatten(const BaseLayer& layer, bool quantise);
std::uint8_t* write_fully_connect(const BaseLayer& layer, bool quantise);
std::uint8_t* write_lrn(const BaseLayer& layer, bool quantise);
std::uint8_t* write_normalize(const BaseLayer& layer, bool quantise);
std::uint8_t* write_permute(const BaseLayer& layer, bool quantise);
std::uint8_t* write_pooling(const BaseLayer& layer, bool quantise);
std::uint8_t* write_power(const BaseLayer& layer, bool quantise);
std::uint8_t* write_prelu(const BaseLayer& layer, bool quantise);
std::uint8_t* write_prior_box(const BaseLayer& layer, bool quantise);
std::uint8_t* write_relu(const BaseLayer& layer, bool quantise);
std::uint8_t* write_reshape(const BaseLayer& layer, bool quantise);
std::uint8_t* write_scale(const BaseLayer& layer, bool quantise);
std::uint8_t* write_softmax(const BaseLayer& layer, bool quantise);

// A new record with its "class".
inline std::uint8_t* make_record(std::string_view keyword) {
  return add(make_dictionary(), "class", make_text(keyword));
}

// A layer of the class with the row's type code.
template <class Layer>
std::unique_ptr<Layer> make_layer(const LayerRow& row) {
  auto layer = std::make_unique<Layer>();
  layer->type = row.type;
  return layer;
}

// Wires inputs, then outputs with the shape that `output_shape(last input)` gives. Without any
// input the load fails.
template <class Layer, class ShapeRule>
LayerPtr wire(const Record& record, const LayerRow& row, std::unique_ptr<Layer> layer,
              ShapeRule output_shape) {
  wire_inputs(record, row.label, *layer);
  if (layer->inputs.empty()) {
    record.state->fail("input_layers", "the layer has no input");
  } else if (!record.state->failed) {
    wire_outputs(record, output_shape(*layer->inputs.back()), *layer);
  }
  return layer;
}

// The shape rule of the classes whose output has the last input's shape.
inline std::optional<Shape> shape_of_input(const Blob& input) {
  return input;
}

}  // namespace ravu
