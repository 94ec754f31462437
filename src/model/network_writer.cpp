// The root record, and the file that takes the destination's place only when it is complete.
#include "model/network_writer.h"

#include <cstdio>
#include <filesystem>
#include <new>
#include <random>
#include <string>
#include <system_error>

#include "model/layer_table.h"
#include "model/tag_writer.h"
#include "model/tensor_record.h"

namespace ravu {
namespace {

namespace fs = std::filesystem;

std::uint8_t* write_names(const std::vector<Blob*>& blobs) {
  std::uint8_t* names = make_list();
  for (const Blob* blob : blobs) names = append(names, make_text(blob->name));
  return names;
}

// Kept: a layer whose class has no row (the loader's crop) is left out without a message.
std::uint8_t* write_layers(const Network& network, bool quantise) {
  std::uint8_t* list = make_list();
  for (const auto& layer : network.layers) {
    const LayerRow* row = find_row(layer_table(), layer->type);
    if (row == nullptr) continue;
    std::uint8_t* record = row->write(*layer, quantise);
    record = add(record, "output_layers", write_names(layer->outputs));
    record = add(record, "input_layers", write_names(layer->inputs));
    list = append(list, record);
  }
  return list;
}

bool write_bytes(const fs::path& path, const std::uint8_t* image) {
  std::FILE* file = std::fopen(path.string().c_str(), "wb");
  if (file == nullptr) return false;
  const std::size_t bytes = element_bytes(image);
  const bool written = std::fwrite(image, 1, bytes, file) == bytes;
  return std::fclose(file) == 0 && written;
}

// Whether an existing file may be written; its contents stay.
bool is_writable(const fs::path& path) {
  std::FILE* file = std::fopen(path.string().c_str(), "r+b");
  return file != nullptr && std::fclose(file) == 0;
}

// A name beside the destination that no other writer picks.
fs::path temporary_beside(const fs::path& destination) {
  std::random_device random;
  fs::path path = destination;
  path += ".tmp" + std::to_string(random()) + std::to_string(random());
  return path;
}

bool replace_file(const fs::path& path, const std::uint8_t* image) {
  std::error_code error;
  const fs::file_status status = fs::status(path, error);
  if (fs::exists(status) && !fs::is_regular_file(status)) return write_bytes(path, image);
  // The rename would replace even a file that is write-protected.
  if (fs::exists(status) && !is_writable(path)) return false;
  fs::path destination = fs::weakly_canonical(path, error);
  if (error) destination = path;
  const fs::path temporary = temporary_beside(destination);
  if (write_bytes(temporary, image)) {
    if (fs::exists(status)) fs::permissions(temporary, status.permissions(), error);
    fs::rename(temporary, destination, error);
    if (!error) return true;
  }
  fs::remove(temporary, error);
  return false;
}

}  // namespace

// Kept: "need_crop" is not written; a reloaded network crops when its two sizes differ.
std::uint8_t* write_network(const Network& network, bool quantise) {
  const auto to_int = [](std::uint32_t n) { return make_int(static_cast<std::int32_t>(n)); };
  std::uint8_t* labels = make_list();
  for (const char* label : network.labels) labels = append(labels, make_text(label));
  std::uint8_t* root = make_dictionary();
  if (network.mean) {
    root = add(root, "data_mean", write_tensor(network.mean.get(), /*quantise=*/false));
  }
  root = add(root, "layout", make_text(network.layout == kPlanar ? "BCHW" : "BHWC"));
  root = add(root, "layers", write_layers(network, quantise));
  root = add(root, "label_names", labels);
  root = add(root, "input_name", make_text(network.input->name));
  root = add(root, "need_quant", make_int(quantise ? 1 : 0));
  root = add(root, "input_size", to_int(network.input_width));
  root = add(root, "image_size", to_int(network.image_width));
  return add(root, "input_channel_num", to_int(network.input_channels));
}

bool write_model_file(const std::uint8_t* root, const char* path) {
  try {
    return replace_file(path, root);
  } catch (const fs::filesystem_error&) {
    return false;
  }
}

bool save_network(const Network& network, const char* path, bool quantise) {
  bool saved = false;
  if (path != nullptr) {
    try {
      const FileImage image(write_network(network, quantise));
      saved = image && write_model_file(image.get(), path);
    } catch (const std::bad_alloc&) {
      saved = false;
    }
  }
  if (!saved) std::fprintf(stderr, "Fail to save graph to %s\n", path == nullptr ? "" : path);
  return saved;
}

}  // namespace ravu
