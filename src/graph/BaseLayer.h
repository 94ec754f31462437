// The base of every layer: the Blobs it reads and writes, and the operations through which the
// network drives it. The network never looks at a layer's class.
#pragma once

#include <array>
#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "graph/Blob.h"
#include "kernels/element_steps.h"

// clDNN's handles, opaque here.
struct cldnn_topology_impl;
struct cldnn_engine_impl;

namespace ravu {

class Workspace;
struct GpuGraph;

// Blob name to clDNN primitive identifier.
using Aliases = std::map<std::string, std::string>;

// What `fits` answers: whether a layer's kernel stays inside its Blobs and divides by no zero,
// and if not, the rule that is broken, as text for the user.
struct Fit {
  const char* broken_rule = nullptr;
  explicit operator bool() const { return broken_rule == nullptr; }
};

class BaseLayer {
 public:
  BaseLayer() = default;
  BaseLayer(const BaseLayer&) = delete;
  BaseLayer& operator=(const BaseLayer&) = delete;

  std::vector<Blob*> inputs;   // borrowed, in the order of the record's "input_layers"
  std::vector<Blob*> outputs;  // borrowed, in the order of "output_layers"
  std::uint32_t type = 0;
  std::unique_ptr<Blob*[]> owned;  // Blobs that got their storage from this layer
  std::uint32_t owned_count = 0;
  bool prepared = false;           // whether a Setup has run
  Workspace* workspace = nullptr;  // the network's scratch memory; set by Network::add_layer
  GpuGraph* gpu = nullptr;         // what a GPU set-up has added; set before AddPrimitives

  // Fusion, see graph/fusion.h. What the layer does to each of its elements, as things stand now;
  // none while it is not ready. Null: it is not that kind of layer.
  using StepOf = std::optional<kernels::ElementStep> (*)(const BaseLayer& layer);
  StepOf element_step = nullptr;
  bool takes_steps = false;  // whether Forward runs the steps of the layers below
  std::array<BaseLayer*, kernels::ElementSteps::kMost> followers{};  // up to the first null one
  bool done_by_producer = false;  // set by the layer that this one follows, for the current pass

  // Gives back the storage of every owned Blob; the records are the network's.
  virtual ~BaseLayer();

  // Computes the layer on the processor for run mode 0 or 3. Leaves the outputs as they are when
  // storage, weights or shapes are not there. The result is true unless a class says otherwise.
  virtual bool Forward(std::uint32_t mode);

  // Adds the layer's clDNN primitives to the topology. Raises cldnn::error. A layer without inputs
  // or without outputs adds none.
  virtual void AddPrimitives(cldnn_topology_impl* topology, cldnn_engine_impl* engine,
                             std::uint32_t data_type, Aliases& aliases);

  // Allocates what is missing and brings the parameters into the form that `mode` needs. May place
  // Blobs into `params`, which the network then owns. Throws std::bad_alloc.
  virtual bool Setup(std::int32_t mode, std::vector<BlobPtr>& params);

  // Adapts the last output to a changed input shape. This version looks at the batch alone.
  virtual void Reshape();

  // Releases weights that are no longer needed on the processor.
  virtual void ReleaseWeights();

  // Gives storage to every input without data and, unless in_place, to every output without data;
  // in_place makes every output borrow the last input's storage instead.
  virtual void AllocateBlobs(bool in_place) final;

 protected:
  // The Reshape of the layers whose output has the input's shape.
  void reshape_like_input();

  // The Reshape of the layers whose output keeps its other dims: the batch becomes the input's, the
  // count follows.
  void follow_batch();
};

// Single-input, single-output layers use the last of each list; null when there is none.
Blob* last_input(const BaseLayer& layer);
Blob* last_output(const BaseLayer& layer);

// Whether the layer has an input and an output at all.
bool is_wired(const BaseLayer& layer);

// Whether the layer has been set up, its last input holds data and its last output has elements to
// write: dims without elements may name any sizes, which loops over them would walk.
bool has_data(const BaseLayer& layer);

// Whether each of the Blobs holds data or has no element to hold.
bool all_have_data(const std::vector<Blob*>& blobs);

// A Blob of `params` with these dims and layout, added zeroed when there is none: layers with equal
// shapes share one scratch Blob.
Blob& shared_scratch(std::vector<BlobPtr>& params, const Shape& shape);

// Gives a scratch Blob this shape, count included, and zeroed storage unless it has them already:
// after a shape change the layers that share it may differ. Throws std::bad_alloc.
void fit_scratch(Blob& scratch, const Shape& shape);

}  // namespace ravu
