// A thin C++17 wrapper around ravu.h: one class that owns a network, and failures as exceptions.
// The rules of ravu.h hold unchanged: shapes, units, layout, lifetime of views, one thread at a
// time.
#ifndef RAVU_RAVU_HPP
#define RAVU_RAVU_HPP

#include <cstddef>
#include <cstdint>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "ravu/ravu.h"

namespace ravu {

// The elements of one tensor of a network, interleaved; valid until the next forward run, shape
// change, set-up or destruction. Empty when there is no such tensor.
class View {
 public:
  explicit View(const ravu_blob_view& view) : view_(view) {}
  const float* begin() const { return view_.data; }
  const float* end() const { return view_.data + view_.count; }
  std::size_t size() const { return view_.count; }
  bool empty() const { return view_.count == 0; }
  float operator[](std::size_t i) const { return view_.data[i]; }
  std::uint32_t batch() const { return view_.dims[0]; }
  std::uint32_t height() const { return view_.dims[1]; }
  std::uint32_t width() const { return view_.dims[2]; }
  std::uint32_t channels() const { return view_.dims[3]; }

 private:
  ravu_blob_view view_;
};

class Model {
 public:
  // Loads a model file; throws std::runtime_error when it does not load.
  explicit Model(const std::string& path, std::uint32_t batch = 1, bool channel_mean = false)
      : network_(ravu_create_network_private(path.c_str(), channel_mean, batch)) {
    if (!network_) throw std::runtime_error("cannot load the model " + path);
  }

  std::uint32_t input_size() const { return ravu_get_network_inputSize(network_.get()); }
  std::uint32_t input_channels() const { return ravu_get_network_inputChannels(network_.get()); }

  // Prepares a run mode (RAVU_MODE_...). Throws std::runtime_error when it cannot be had.
  void set_up(std::uint32_t mode) {
    if (!ravu_setup_runEngine(network_.get(), mode)) {
      throw std::runtime_error("run mode " + std::to_string(mode) + " cannot be set up");
    }
    mode_ = mode;
  }

  // Fill the input with batch x height x width x channels values; other sizes than before reshape
  // the network. Throw std::invalid_argument when there are fewer values.
  void set_input(const std::vector<std::uint8_t>& pixels, std::uint32_t batch, std::uint32_t height,
                 std::uint32_t width, std::uint32_t channels) {
    need(pixels.size(), batch, height, width, channels);
    ravu_set_InputData_byRawData_byte(network_.get(), pixels.data(), batch, height, width,
                                      channels);
  }
  void set_input(const std::vector<float>& pixels, std::uint32_t batch, std::uint32_t height,
                 std::uint32_t width, std::uint32_t channels) {
    need(pixels.size(), batch, height, width, channels);
    ravu_set_InputData_byRawData_float(network_.get(), pixels.data(), batch, height, width,
                                       channels);
  }

  // Runs the network in the mode that was set up.
  void forward() { ravu_forward(network_.get(), mode_); }

  std::size_t output_count() const {
    return static_cast<std::size_t>(ravu_getOutput_blob_num(network_.get()));
  }
  View output(std::int32_t index) const { return View(ravu_getOutput_blob(network_.get(), index)); }
  View hidden(std::int32_t layer) const { return View(ravu_hidden_blob(network_.get(), layer)); }

  // The model's label names, as many as its file lists.
  const char* const* labels() const { return ravu_getOutput_Labels(network_.get()); }

  void release_weights() { ravu_release_netowrk_weights(network_.get()); }
  void save(const std::string& path, bool quantise = false) const {
    ravu_save_network_to_private(network_.get(), path.c_str(), quantise);
  }

  // The handle, for functions that have no member here; it stays this object's.
  ravu_network* handle() const { return network_.get(); }

 private:
  struct Destroy {
    void operator()(ravu_network* network) const { ravu_destroy_network(network); }
  };

  static void need(std::size_t given, std::uint64_t batch, std::uint64_t height,
                   std::uint64_t width, std::uint64_t channels) {
    const std::uint64_t limit = UINT32_MAX;
    if (batch > limit / (height + 1) || batch * height > limit / (width + 1) ||
        batch * height * width > limit / (channels + 1) ||
        given < batch * height * width * channels) {
      throw std::invalid_argument("fewer values than batch x height x width x channels");
    }
  }

  std::unique_ptr<ravu_network, Destroy> network_;
  std::uint32_t mode_ = RAVU_MODE_CPU;
};

}  // namespace ravu

#endif
