// One walk from the target back to the input with the Blobs that are still wanted. Several names
// may stand for one storage: who writes to one of them changes what the readers of the others see.
#include "common/pruning.h"

#include <algorithm>
#include <set>
#include <unordered_map>
#include <utility>
#include <vector>

#include "layers/FlattenLayer.h"
#include "layers/PermuteLayer.h"
#include "layers/ReluLayer.h"
#include "layers/ReshapeLayer.h"

namespace ravu::tools {
namespace {

// Whether the layer only gives its input's values another name and shape.
bool is_view(const BaseLayer& layer) {
  const auto* permute = dynamic_cast<const PermuteLayer*>(&layer);
  if (permute != nullptr) return !moves_values(*permute);
  return dynamic_cast<const FlattenLayer*>(&layer) != nullptr ||
         dynamic_cast<const ReshapeLayer*>(&layer) != nullptr;
}

// Which Blobs share storage once the network is set up, as a forest.
class SharedStorage {
 public:
  explicit SharedStorage(const Network& network) {
    for (const auto& layer : network.layers) {
      if (layer->inputs.empty()) continue;
      if (!is_view(*layer) && dynamic_cast<const ReluLayer*>(layer.get()) == nullptr) continue;
      for (const Blob* output : layer->outputs) join(output, layer->inputs.back());
    }
  }

  const Blob* root(const Blob* blob) const {
    for (auto found = lenders_.find(blob); found != lenders_.end(); found = lenders_.find(blob)) {
      blob = found->second;
    }
    return blob;
  }

 private:
  void join(const Blob* borrower, const Blob* lender) {
    const Blob* from = root(borrower);
    const Blob* to = root(lender);
    if (from != to) lenders_[from] = to;
  }

  std::unordered_map<const Blob*, const Blob*> lenders_;
};

class Wanted {
 public:
  explicit Wanted(const SharedStorage& shared) : shared_(shared) {}

  bool is_written_by(const BaseLayer& layer) const {
    return std::any_of(layer.outputs.begin(), layer.outputs.end(), [&](const Blob* output) {
      return blobs_.count(output) > 0 ||
             (!is_view(layer) && storages_.count(shared_.root(output)) > 0);
    });
  }

  void add_inputs_of(const BaseLayer& layer) {
    for (const Blob* input : layer.inputs) {
      blobs_.insert(input);
      storages_.insert(shared_.root(input));
    }
  }

  // What stood in a Blob before a layer that writes it without reading it does not matter.
  void drop_outputs_of(const BaseLayer& layer) {
    for (const Blob* output : layer.outputs) {
      blobs_.erase(output);
      if (shared_.root(output) == output) storages_.erase(output);
    }
  }

 private:
  const SharedStorage& shared_;
  std::set<const Blob*> blobs_;
  std::set<const Blob*> storages_;  // their roots
};

// Undoes what wiring the layer counted.
void unwire(const BaseLayer& layer) {
  for (Blob* input : layer.inputs) --input->consumers;
  for (Blob* output : layer.outputs) --output->producers;
}

}  // namespace

void keep_ancestors(Network& network, std::size_t target) {
  const SharedStorage shared(network);
  Wanted wanted(shared);
  std::vector<bool> kept(network.layers.size(), false);
  for (std::size_t i = target + 1; i-- > 0;) {
    const BaseLayer& layer = *network.layers[i];
    kept[i] = i == target || wanted.is_written_by(layer);
    if (!kept[i]) continue;
    wanted.drop_outputs_of(layer);
    wanted.add_inputs_of(layer);
  }
  std::vector<std::unique_ptr<BaseLayer>> layers;
  for (std::size_t i = 0; i < network.layers.size(); ++i) {
    if (kept[i]) {
      layers.push_back(std::move(network.layers[i]));
    } else {
      unwire(*network.layers[i]);
    }
  }
  network.layers = std::move(layers);
  network.outputs.clear();
  network.collect_outputs();
  allocate(*last_output(*network.layers.back()));
}

}  // namespace ravu::tools
