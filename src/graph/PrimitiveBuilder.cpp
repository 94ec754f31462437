// Identifiers follow from the names of Blobs and the aliases; sizes are kept for every primitive,
// since clDNN does not tell them before the network is built.
#include "graph/PrimitiveBuilder.h"

#include <algorithm>
#include <utility>

namespace ravu {
namespace {

constexpr const char* kAddFailed = "primitive add failed";

std::string with_number(const std::string& base, std::size_t number) {
  return base + "_" + std::to_string(number);
}

// `name`, made longer while it is taken.
std::string free_name(const GpuGraph& graph, std::string name) {
  while (graph.is_taken(name)) name += '_';
  return name;
}

}  // namespace

std::size_t elements(const GpuShape& shape) {
  return cldnn::element_count(make_layout(shape, CLDNN_FLOAT32));
}

std::string resolve(const Aliases& aliases, std::string name) {
  for (auto found = aliases.find(name); found != aliases.end(); found = aliases.find(name)) {
    name = found->second;
  }
  return name;
}

std::string fresh_id(const GpuGraph& graph, const std::string& base, std::size_t number) {
  while (graph.is_taken(with_number(base, number))) ++number;
  return with_number(base, number);
}

std::vector<float> batch_innermost(std::span<const float> values, std::size_t batch) {
  const std::size_t item = values.size() / batch;
  std::vector<float> turned(values.begin(), values.end());
  for (std::size_t b = 0; b < batch; ++b) {
    for (std::size_t k = 0; k < item; ++k) turned[k * batch + b] = values[b * item + k];
  }
  return turned;
}

void add_data(GpuGraph& graph, cldnn_topology topology, cldnn_engine engine,
              std::uint32_t data_type, const std::string& id, const GpuShape& shape,
              std::span<const float> values) {
  cldnn::Memory memory =
      cldnn::allocate_memory(*graph.library, engine, make_layout(shape, data_type));
  cldnn::LockedMemory floats(*graph.library, memory);
  std::copy_n(values.begin(), std::min(values.size(), floats.size()), floats.data());
  floats.unlock();
  cldnn_data_desc data{};
  data.memory = memory.get();
  add_primitive(graph, topology, cldnn::Kind::kData, data.header, id, {}, shape);
  memory.release();
}

void add_primitive(GpuGraph& graph, cldnn_topology topology, cldnn::Kind kind,
                   cldnn_primitive& header, const std::string& id,
                   const std::vector<std::string>& inputs, const GpuShape& output) {
  const cldnn::Library& library = *graph.library;
  std::vector<cldnn_id> ids;
  ids.reserve(inputs.size());
  for (const std::string& input : inputs) ids.push_back(input.c_str());
  header.type = cldnn::check_status(library, std::string(cldnn::name_of(kind)) + " type id failed",
                                    library.type_id(kind));
  header.id = id.c_str();
  header.input = {ids.data(), ids.size()};
  header.output_padding = {no_padding(), no_padding(), 0.0F};
  cldnn::check_status(library, kAddFailed, [&](cldnn_status* status) {
    library.add_primitive(topology, &header, status);
  });
  graph.shapes.insert_or_assign(id, output);
}

PrimitiveBuilder::PrimitiveBuilder(BaseLayer& layer, cldnn_topology topology, cldnn_engine engine,
                                   std::uint32_t data_type, Aliases& aliases)
    : graph_(*layer.gpu),
      topology_(topology),
      engine_(engine),
      data_type_(data_type),
      aliases_(aliases),
      input_blobs_(layer.inputs),
      output_name_(layer.outputs.back()->name) {
  Blob& counted = *layer.inputs.back();
  graph_.counted_down.push_back(&counted);
  --counted.consumers;
  prefix_ = output_name_ + "_" + std::to_string(static_cast<std::int32_t>(counted.consumers));

  for (const Blob* blob : input_blobs_) inputs_.push_back(resolve(aliases_, blob->name));
  output_ = resolve(aliases_, output_name_);
}

// A Blob that several layers write takes a fresh identifier for each as well.
void PrimitiveBuilder::claim_output() {
  const bool in_place = std::find(inputs_.begin(), inputs_.end(), output_) != inputs_.end();
  if (!in_place && graph_.shapes.count(output_) == 0) return;
  std::string fresh = fresh_id(graph_, output_, aliases_.size());
  aliases_[output_] = fresh;
  output_ = std::move(fresh);
}

void PrimitiveBuilder::require(const Fit& fit) {
  if (!fit) throw cldnn::error(std::string(kAddFailed) + ": " + fit.broken_rule, CLDNN_ERROR);
}

std::string PrimitiveBuilder::map(std::size_t index) {
  return reshaped(inputs_[index], shape_of(*input_blobs_[index]));
}

// Sizes that hold another number of values are left as they are: clDNN computes them differently
// from the Blob, and says what does not fit when the program is built.
std::string PrimitiveBuilder::reshaped(const std::string& id, const GpuShape& wanted) {
  const GpuShape& now = shape(id);
  if (now == wanted || now.format != CLDNN_FORMAT_YXFB || elements(now) != elements(wanted)) {
    return id;
  }
  std::string own = free_name(graph_, id + "_reshape");
  cldnn_reshape_desc reshape{};
  reshape.output_shape = make_tensor(wanted.batch, wanted.feature, wanted.x, wanted.y);
  add(cldnn::Kind::kReshape, reshape.header, {id}, wanted, own);
  return own;
}

std::string PrimitiveBuilder::planar_rows(std::size_t index) {
  const Blob& blob = *input_blobs_[index];
  GpuShape rows = shape(inputs_[index]);
  if (rows.format == CLDNN_FORMAT_BFYX) return inputs_[index];
  rows = {to_size(blob.dims[0]), to_size(blob.dims[0] == 0 ? 0 : blob.count / blob.dims[0]), 1, 1,
          rows.format};
  const std::string flat = reshaped(inputs_[index], rows);
  rows.format = CLDNN_FORMAT_BFYX;
  std::string own = free_name(graph_, inputs_[index] + "_reorder");
  cldnn_reorder_desc reorder{};
  reorder.output_format = CLDNN_FORMAT_BFYX;
  reorder.output_data_type = static_cast<std::int32_t>(data_type_);
  reorder.mean = "";
  add(cldnn::Kind::kReorder, reorder.header, {flat}, rows, own);
  return own;
}

const GpuShape& PrimitiveBuilder::shape(const std::string& id) const {
  static constexpr GpuShape kUnknown;
  const auto found = graph_.shapes.find(id);
  return found == graph_.shapes.end() ? kUnknown : found->second;
}

void PrimitiveBuilder::add(cldnn::Kind kind, cldnn_primitive& header,
                           const std::vector<std::string>& inputs, const GpuShape& shape) {
  claim_output();
  add(kind, header, inputs, shape, output_);
}

void PrimitiveBuilder::add(cldnn::Kind kind, cldnn_primitive& header,
                           const std::vector<std::string>& inputs, const GpuShape& shape,
                           const std::string& id) {
  add_primitive(graph_, topology_, kind, header, id, inputs, shape);
}

std::string PrimitiveBuilder::parameter(const std::string& name, const GpuShape& shape,
                                        std::span<const float> values) {
  std::string id = free_name(graph_, name);
  add_data(graph_, topology_, engine_, data_type_, id, shape, values);
  return id;
}

void PrimitiveBuilder::alias_output(const std::string& id) {
  // Both are the ends of their chains, so no chain comes back to itself.
  if (output_ != id) aliases_[output_] = id;
}

void PrimitiveBuilder::share_with_later_readers() {
  if (input_blobs_.back()->consumers != 0 && input() != output_ && aliases_.count(input()) == 0) {
    aliases_[input()] = output_;
  }
}

void PrimitiveBuilder::relabel_output(const GpuShape& wanted) {
  const std::string relabelled = reshaped(output_, wanted);
  if (relabelled != output_) aliases_[output_] = relabelled;
}

std::vector<float> repeated(std::span<const float> values, std::size_t run, std::size_t n) {
  const bool whole = run != 0 && run <= values.size() && n % run == 0;
  PrimitiveBuilder::require(
      {whole ? nullptr
             : "its parameters do not repeat along the channels a whole number of times"});
  std::vector<float> all(n);
  for (std::size_t i = 0; i < n; ++i) all[i] = values[i % run];
  return all;
}

std::vector<float> repeated(const Blob& values, std::size_t run, std::size_t n) {
  return repeated(std::span(values.data, values.data == nullptr ? 0 : values.count), run, n);
}

}  // namespace ravu
