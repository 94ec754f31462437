// The weighted sum, once for each output. The only output may be rectified on the way.
#include "layers/EltWiseLayer.h"

#include <string>
#include <vector>

#include "graph/PrimitiveBuilder.h"
#include "graph/Workspace.h"
#include "graph/fusion.h"
#include "kernels/kernels.h"

namespace ravu {

Fit fits(const EltWiseLayer& layer) {
  if (layer.inputs.empty()) return {"eltwise needs an input"};
  if (layer.operation != EltWiseLayer::kSum) return {};
  for (const Blob* output : layer.outputs) {
    for (const Blob* input : layer.inputs) {
      if (input->count < output->count) return {"an input is smaller than the output"};
    }
  }
  return {};
}

bool EltWiseLayer::Forward(std::uint32_t) {
  // Kept: products and maxima are computed on the GPU only.
  if (operation != kSum || !prepared || !all_have_data(inputs) || !fits(*this)) return true;
  // Kept: the model holds no coefficients, so all become 1, those that were there before as well.
  if (coefficients.size() != inputs.size()) coefficients.assign(inputs.size(), 1.0F);
  std::vector<const float*> terms;
  for (const Blob* input : inputs) terms.push_back(input->data);
  kernels::ElementSteps steps;
  const bool only = outputs.size() == 1 && outputs[0]->data != nullptr;
  const std::size_t taken = only ? collect_steps(*this, /*channels=*/0, steps) : 0;
  for (Blob* output : outputs) {
    if (output->data == nullptr) continue;
    kernels::weighted_sum(terms.data(), coefficients.data(), terms.size(), steps, output->data,
                          output->count, workspace->workers());
  }
  mark_done(*this, taken);
  return true;
}

void EltWiseLayer::AddPrimitives(cldnn_topology_impl* topology, cldnn_engine_impl* engine,
                                 std::uint32_t data_type, Aliases& aliases) {
  if (!is_wired(*this)) return;
  PrimitiveBuilder::require(fits(*this));
  PrimitiveBuilder builder(*this, topology, engine, data_type, aliases);
  std::vector<std::string> ids;
  for (std::size_t i = 0; i < inputs.size(); ++i) ids.push_back(builder.map(i));
  if (ids.size() == 1) {
    builder.alias_output(ids[0]);
    return;
  }
  // Two at a time; what the last pair gives bears the layer's identifier.
  const GpuShape shape = builder.shape(ids[0]);
  for (std::size_t i = 1; i < ids.size(); ++i) {
    cldnn_eltwise_desc pair{};
    pair.second_input = ids[i].c_str();
    pair.mode = operation;
    if (i + 1 == ids.size()) {
      builder.add(cldnn::Kind::kEltwise, pair.header, {ids[0]}, shape);
    } else {
      const std::string part = builder.part_id();
      builder.add(cldnn::Kind::kEltwise, pair.header, {ids[0]}, shape, part);
      ids[0] = part;
    }
  }
}

void EltWiseLayer::Reshape() {
  reshape_like_input();
}

void EltWiseLayer::ReleaseWeights() {
  coefficients.clear();
}

}  // namespace ravu
