// The root record: sizes, mean, input, crop, layers, labels. Storage is given out last, when it is
// known how much the whole network takes.
#include "model/network_reader.h"

#include <algorithm>
#include <cstdio>
#include <new>
#include <utility>
#include <vector>

#include "layers/CropLayer.h"
#include "model/record.h"
#include "model/tensor_record.h"

namespace ravu {
namespace {

struct Sizes {
  std::int32_t input;
  std::int32_t image;
  std::int32_t channels;
};

Sizes read_sizes(const Record& root) {
  Network& network = *root.state->network;
  const Tag layout = get_tag_from_memory(root.dictionary, "layout");
  network.layout = layout && tag_text(layout) == "BCHW" ? kPlanar : kInterleaved;
  const Sizes sizes{need_int(root, "input_size"), need_int(root, "image_size"),
                    need_int(root, "input_channel_num")};
  network.input_width = network.input_height = static_cast<std::uint32_t>(sizes.input);
  network.image_width = network.image_height = static_cast<std::uint32_t>(sizes.image);
  network.input_channels = static_cast<std::uint32_t>(sizes.channels);
  return sizes;
}

// Overwrites every pixel of the mean image with the average pixel.
void average_channels(Blob& mean) {
  const std::size_t channels = mean.dims[3];
  const std::size_t pixels = std::size_t{mean.dims[1]} * mean.dims[2];
  if (pixels == 0) return;
  for (std::size_t c = 0; c < channels; ++c) {
    double sum = 0;
    for (std::size_t p = 0; p < pixels; ++p) sum += mean.data[p * channels + c];
    const auto average = static_cast<float>(sum / static_cast<double>(pixels));
    for (std::size_t p = 0; p < pixels; ++p) mean.data[p * channels + c] = average;
  }
}

void read_mean(const Record& root, const Sizes& sizes, bool channel_mean) {
  if (!get_tag_from_memory(root.dictionary, "data_mean")) return;
  BlobPtr mean = need_tensor(root, "data_mean");
  const auto shape =
      make_shape(1, sizes.input, sizes.input, sizes.channels, root.state->network->layout);
  if (!mean || !shape) return;
  if (mean->count < shape->count) {
    root.state->fail("data_mean", "holds fewer values than the network input");
    return;
  }
  static_cast<Shape&>(*mean) = *shape;
  mean->name = "data_mean";
  if (channel_mean) average_channels(*mean);
  root.state->network->set_mean(std::move(mean));
}

void make_input(const Record& root, const Sizes& sizes, std::uint32_t batch) {
  Network& network = *root.state->network;
  const std::string_view name = need_text(root, "input_name");
  const auto shape = make_shape(batch, sizes.input, sizes.input, sizes.channels, network.layout);
  if (batch == 0) root.state->fail({}, "the batch must be at least 1");
  if (!shape) root.state->fail("input_size", "negative, or the input would be too large");
  auto input = std::make_unique<Blob>();
  if (shape) static_cast<Shape&>(*input) = *shape;
  input->name = name;
  network.blobs_by_name.emplace(input->name, input.get());
  network.set_input(std::move(input));
}

// A centre crop as first layer when input and working image differ in size. Its output takes over
// the input's name.
void make_crop(const Record& root, const Sizes& sizes) {
  Network& network = *root.state->network;
  network.preprocess = get_int(root, "need_crop", 1) != 0;
  if (!network.preprocess || sizes.input == sizes.image || root.state->failed) return;
  auto crop = std::make_unique<CropLayer>();
  const Blob& input = *network.input;
  crop->place_in_centre(sizes.input, sizes.image, sizes.channels, network.layout);
  const auto shape =
      make_shape(input.dims[0], sizes.image, sizes.image, sizes.channels, input.layout);
  if (!shape) {
    root.state->fail("image_size", "negative, or the image would be too large");
    return;
  }
  crop->inputs.push_back(network.input.get());
  ++network.input->consumers;
  Blob& output = network.add_blob(*shape, input.name);
  ++output.producers;
  crop->outputs.push_back(&output);
  const Fit fit = fits(*crop);
  if (!fit) root.state->fail("image_size", fit.broken_rule);
  network.add_layer(std::move(crop));
}

struct PendingRecord {
  Record record;
  const LayerRow* row;
  std::size_t index;
};

// Calls the row's reader and adds the layer. False when the reader returned nothing.
bool build_layer(const PendingRecord& pending) {
  LoadState& state = *pending.record.state;
  state.where = "layer " + std::to_string(pending.index);
  state.where.append(" (").append(pending.row->keyword).append(")");
  std::unique_ptr<BaseLayer> layer = pending.row->read(pending.record, *pending.row);
  if (layer && !state.failed) {
    const Fit fit = pending.row->fits(*layer);
    if (!fit) state.fail({}, fit.broken_rule);
  }
  state.where.clear();
  if (!layer) return false;
  state.network->add_layer(std::move(layer));
  return true;
}

void read_labels(const Record& root) {
  const Tag list = get_tag_from_memory(root.dictionary, "label_names");
  for (TagWalk walk(list); walk.next();) root.state->network->add_label(tag_text(walk.child));
}

void give_storage(LoadState& state) {
  Network& network = *state.network;
  if (network.storage_bytes() > network.memory_limit) {
    state.fail({}, "the network's tensors would take more memory than this machine has");
    return;
  }
  allocate(*network.input);
  network.collect_outputs();
}

}  // namespace

void read_layers(const Tag& list, std::span<const LayerRow> table, LoadState& state) {
  std::vector<PendingRecord> pending;
  std::size_t index = 0;
  for (TagWalk walk(list); walk.next() && !state.failed; ++index) {
    pending.erase(std::remove_if(pending.begin(), pending.end(), build_layer), pending.end());
    const Record record{walk.child, &state};
    state.where = "layer " + std::to_string(index);
    const LayerRow* row = find_row(table, need_text(record, "class"));
    state.where.clear();
    // A record of an unknown class is dropped at once: no retry could ever build it.
    if (row == nullptr) continue;
    const PendingRecord current{record, row, index};
    if (!build_layer(current)) pending.push_back(current);
  }
}

LoadResult read_network(const Tag& root_element, const LoadOptions& options) {
  LoadResult result;
  try {
    auto network = std::make_unique<Network>();
    LoadState state;
    network->memory_limit = options.memory_limit;
    state.network = network.get();
    const Record root{root_element, &state};
    if (!root_element || root_element.type != kTagDictionary) {
      state.fail({}, "the file is not a model: its root is no dictionary");
    } else {
      const Sizes sizes = read_sizes(root);
      read_mean(root, sizes, options.channel_mean);
      make_input(root, sizes, options.batch);
      make_crop(root, sizes);
      state.quantised = get_int(root, "need_quant", 0) != 0;
      const Tag layers = need_tag(root, "layers");
      if (!state.failed) read_layers(layers, layer_table(), state);
      if (!state.failed) give_storage(state);
      if (!state.failed) read_labels(root);
    }
    if (!state.failed) result.network = std::move(network);
    result.reason = std::move(state.reason);
  } catch (const std::bad_alloc&) {
    result.reason = "out of memory";  // so short that a string needs no memory for it
  }
  return result;
}

LoadResult open_network(const char* path, const LoadOptions& options) {
  const FileImage image = load_file(path);
  if (image) return read_network(root_tag(image.get()), options);
  LoadResult result;
  result.reason = "the file cannot be read, or is shorter than its header says";
  return result;
}

LoadResult load_network(const char* path, const LoadOptions& options) {
  LoadResult result = open_network(path, options);
  if (!result.network) {
    std::fprintf(stderr, "Fail to parse model (%s)\n", path == nullptr ? "" : path);
  }
  return result;
}

}  // namespace ravu
