// What every AddPrimitives needs: identifiers, aliases, parameters on the GPU, and the call that
// adds a primitive. A layer is a short recipe over this.
#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <vector>

#include "graph/BaseLayer.h"
#include "graph/GpuGraph.h"
#include "graph/cldnn_handles.h"

namespace ravu {

// The identifier that a name stands for: the end of its chain of aliases.
std::string resolve(const Aliases& aliases, std::string name);

// `base`_`number`, or with the next number that makes an identifier which is not taken.
std::string fresh_id(const GpuGraph& graph, const std::string& base, std::size_t number);

// The values of a Blob in batch-innermost order: value k of image b at k * batch + b.
std::vector<float> batch_innermost(std::span<const float> values, std::size_t batch);

// The values that a primitive of this shape has.
std::size_t elements(const GpuShape& shape);

// A constant of the topology: allocates a memory, fills it and adds it under this identifier.
// Values beyond the memory's end are left out.
void add_data(GpuGraph& graph, cldnn_topology topology, cldnn_engine engine,
              std::uint32_t data_type, const std::string& id, const GpuShape& shape,
              std::span<const float> values);

// Completes the descriptor's header (type, identifier, inputs) and adds it to the topology.
void add_primitive(GpuGraph& graph, cldnn_topology topology, cldnn::Kind kind,
                   cldnn_primitive& header, const std::string& id,
                   const std::vector<std::string>& inputs, const GpuShape& output);

class PrimitiveBuilder {
 public:
  // The layer has inputs and outputs. Counts its last input's consumers down by one.
  PrimitiveBuilder(BaseLayer& layer, cldnn_topology topology, cldnn_engine engine,
                   std::uint32_t data_type, Aliases& aliases);

  // Raises cldnn::error with the broken rule. What a layer needs to stay inside its Blobs.
  static void require(const Fit& fit);

  // The identifier of an input as it stands, whatever its sizes are labelled.
  const std::string& input(std::size_t index) const { return inputs_[index]; }
  const std::string& input() const { return inputs_.back(); }

  // The identifier of an input whose sizes are those of its Blob: behind a fully connected layer, a
  // softmax or a flatten, where clDNN labels the same values otherwise, a reshape is put between.
  std::string map(std::size_t index);
  std::string map() { return map(inputs_.size() - 1); }

  // An input as bfyx, one run of features per image.
  std::string planar_rows(std::size_t index);

  const GpuShape& shape(const std::string& id) const;

  // `NAME_COUNT`: the output Blob's name and the last input's consumers.
  const std::string& prefix() const { return prefix_; }

  // The same from the last input's identifier.
  std::string input_prefix() const { return input() + prefix_.substr(output_name_.size()); }

  // Adds the layer's primitive. It bears the identifier of the output, or a fresh one, which the
  // aliases lead to from then on, where that is also an input's: the layer works in place.
  void add(cldnn::Kind kind, cldnn_primitive& header, const std::vector<std::string>& inputs,
           const GpuShape& shape);

  // Adds another primitive under an identifier of its own.
  void add(cldnn::Kind kind, cldnn_primitive& header, const std::vector<std::string>& inputs,
           const GpuShape& shape, const std::string& id);

  // Adds values in memory order as a constant and gives its identifier, which is `name` unless that
  // is taken.
  std::string parameter(const std::string& name, const GpuShape& shape,
                        std::span<const float> values);

  // Makes the output another name of this primitive.
  void alias_output(const std::string& id);

  // Makes the last input another name of the layer's primitive for whoever reads it after this
  // layer: on the processor both share storage, so later readers see what the layer wrote.
  void share_with_later_readers();

  // Gives the layer's primitive other labels for its sizes, by a reshape behind it.
  void relabel_output(const GpuShape& shape);

  // An identifier of its own for a part of the layer's work.
  std::string part_id() const { return fresh_id(graph_, output_, aliases_.size()); }

 private:
  std::string reshaped(const std::string& id, const GpuShape& shape);
  void claim_output();

  GpuGraph& graph_;
  cldnn_topology topology_;
  cldnn_engine engine_;
  std::uint32_t data_type_;
  Aliases& aliases_;
  std::vector<Blob*> input_blobs_;
  std::string output_name_;
  std::vector<std::string> inputs_;
  std::string output_;
  std::string prefix_;
};

// `n` values: the first `run` ones again and again. Raises cldnn::error unless they are there and
// fit a whole number of times.
std::vector<float> repeated(std::span<const float> values, std::size_t run, std::size_t n);
std::vector<float> repeated(const Blob& values, std::size_t run, std::size_t n);

}  // namespace ravu
