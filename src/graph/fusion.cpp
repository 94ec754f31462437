// Whether Blobs share storage is asked of their data pointers, which are compared, never kept.
#include "graph/fusion.h"

#include <algorithm>

#include "graph/Workspace.h"
#include "graph/ravuGraph.h"

namespace ravu {
namespace {

// Whether the layer's last input and last output are this storage.
bool works_on(const BaseLayer& layer, const float* data) {
  const Blob* input = last_input(layer);
  const Blob* output = last_output(layer);
  return data != nullptr && input != nullptr && output != nullptr && input->data == data &&
         output->data == data;
}

// Where the next follower goes; null when there is no room.
BaseLayer** free_place(BaseLayer& producer) {
  const auto place = std::find(producer.followers.begin(), producer.followers.end(), nullptr);
  return place == producer.followers.end() ? nullptr : &*place;
}

}  // namespace

void link_followers(Network& network) {
  unlink_followers(network);
  BaseLayer* producer = nullptr;
  for (const auto& layer : network.layers) {
    const Blob* produced = producer == nullptr ? nullptr : last_output(*producer);
    BaseLayer** place = produced == nullptr ? nullptr : free_place(*producer);
    if (place != nullptr && layer->element_step != nullptr && works_on(*layer, produced->data)) {
      *place = layer.get();
    } else {
      producer = layer->takes_steps ? layer.get() : nullptr;
    }
  }
}

void unlink_followers(Network& network) {
  for (const auto& layer : network.layers) {
    layer->followers.fill(nullptr);
    layer->done_by_producer = false;
  }
}

std::size_t collect_steps(const BaseLayer& producer, std::size_t channels,
                          kernels::ElementSteps& steps) {
  const Blob& output = *last_output(producer);
  std::size_t taken = 0;
  for (const BaseLayer* layer : producer.followers) {
    if (layer == nullptr || steps.full() || !works_on(*layer, output.data)) break;
    const bool same_elements =
        last_input(*layer)->count == output.count && last_output(*layer)->count == output.count;
    const auto step = layer->element_step(*layer);
    if (!same_elements || !step || (step->period != 0 && step->period != channels)) break;
    steps.add(*step);
    ++taken;
  }
  return taken;
}

void mark_done(const BaseLayer& producer, std::size_t count) {
  for (std::size_t i = 0; i < count; ++i) producer.followers[i]->done_by_producer = true;
}

void forward_steps(const BaseLayer& layer) {
  const auto own = layer.element_step(layer);
  if (!own) return;
  const Blob& input = *last_input(layer);
  Blob& output = *last_output(layer);
  const std::size_t n = std::min(input.count, output.count);
  kernels::ElementSteps steps;
  steps.add(*own);
  const std::size_t taken = n == output.count ? collect_steps(layer, own->period, steps) : 0;
  kernels::apply_steps(steps, own->period, input.data, output.data, n, layer.workspace->workers());
  mark_done(layer, taken);
}

}  // namespace ravu
