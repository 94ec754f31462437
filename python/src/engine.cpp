// The compiled half of the Python package: one class over the C interface. Tensors cross as copies
// in plain byte buffers, so that this file does not depend on a version of NumPy; ravu/network.py
// makes arrays of them. The C interface does not say whether there is a fixed-point library, so
// this file looks for it as the engine does.
#include <pybind11/pybind11.h>

#include <cstring>
#include <stdexcept>
#include <string>

#include "graph/fixed_point_library.h"
#include "ravu/ravu.h"

namespace py = pybind11;

namespace {

class EngineError : public std::runtime_error {
  using std::runtime_error::runtime_error;
};

class Network {
 public:
  Network(const std::string& path, bool channel_mean, std::uint32_t batch) {
    const py::gil_scoped_release unlocked;
    network_ = ravu_create_network_private(path.c_str(), channel_mean, batch);
    if (network_ == nullptr) {
      throw EngineError(path + ": the model cannot be loaded (`ravu inspect` prints the reason)");
    }
  }
  Network(const Network&) = delete;
  Network& operator=(const Network&) = delete;
  ~Network() { close(); }

  void close() {
    ravu_destroy_network(network_);
    network_ = nullptr;
  }

  bool closed() const { return network_ == nullptr; }

  std::uint32_t input_size() { return ravu_get_network_inputSize(open()); }
  std::uint32_t input_channels() { return ravu_get_network_inputChannels(open()); }

  // The GPU run modes raise std::runtime_error; Python sees it as EngineError as well. Without the
  // fixed-point library the engine's set-up succeeds and its runs leave outputs as they were.
  void set_up(std::uint32_t mode) {
    ravu_network* network = open();
    const py::gil_scoped_release unlocked;
    if (mode == RAVU_MODE_FIXED_POINT) require_fixed_point();
    bool prepared = false;
    try {
      prepared = ravu_setup_runEngine(network, mode);
    } catch (const std::runtime_error& error) {
      throw EngineError(error.what());
    }
    if (!prepared) {
      throw EngineError("run mode " + std::to_string(mode) +
                        " cannot be set up: not provided, or out of memory");
    }
  }

  void set_input(const py::buffer& pixels) {
    const py::buffer_info info = pixels.request();
    const bool floats = info.format == py::format_descriptor<float>::format();
    if (!floats && info.format != py::format_descriptor<std::uint8_t>::format()) {
      throw py::type_error("pixels must be unsigned bytes or single-precision floats");
    }
    if (info.ndim != 4 || PyBuffer_IsContiguous(info.view(), 'C') == 0) {
      throw py::value_error("pixels must be contiguous: batch, height, width, channels");
    }
    const auto size = [&](int axis) { return static_cast<std::uint32_t>(info.shape[axis]); };
    if (floats) {
      ravu_set_InputData_byRawData_float(open(), static_cast<const float*>(info.ptr), size(0),
                                         size(1), size(2), size(3));
    } else {
      ravu_set_InputData_byRawData_byte(open(), static_cast<const std::uint8_t*>(info.ptr), size(0),
                                        size(1), size(2), size(3));
    }
  }

  void forward(std::uint32_t mode) {
    ravu_network* network = open();
    const py::gil_scoped_release unlocked;
    try {
      ravu_forward(network, mode);
    } catch (const std::runtime_error& error) {
      throw EngineError(error.what());
    }
  }

  std::int64_t output_count() { return ravu_getOutput_blob_num(open()); }
  py::tuple output(std::int32_t index) { return copied(ravu_getOutput_blob(open(), index)); }
  py::tuple hidden(std::int32_t index) { return copied(ravu_hidden_blob(open(), index)); }

  void save(const std::string& path, bool quantise) {
    ravu_network* network = open();
    const py::gil_scoped_release unlocked;
    ravu_save_network_to_private(network, path.c_str(), quantise);
  }

 private:
  static void require_fixed_point() {
    static const std::string problem = ravu::load_fixed_point_library().problem;
    if (!problem.empty()) throw EngineError("run mode 3: " + problem);
  }

  ravu_network* open() const {
    if (network_ == nullptr) throw EngineError("the network is closed");
    return network_;
  }

  // The dims of a view and its values, copied: (batch, height, width, channels), bytes.
  static py::tuple copied(const ravu_blob_view& view) {
    const auto dims = py::make_tuple(view.dims[0], view.dims[1], view.dims[2], view.dims[3]);
    return py::make_tuple(dims, py::bytes(reinterpret_cast<const char*>(view.data),
                                          std::size_t{view.count} * sizeof(float)));
  }

  ravu_network* network_ = nullptr;
};

}  // namespace

PYBIND11_MODULE(_engine, module) {
  module.doc() = "The engine's C interface; ravu.Network is what to use.";
  py::register_exception<EngineError>(module, "EngineError", PyExc_RuntimeError).doc() =
      "What the engine refused: a model, a run mode, or a call on a closed network.";
  py::class_<Network>(module, "Network")
      .def(py::init<const std::string&, bool, std::uint32_t>())
      .def("close", &Network::close)
      .def_property_readonly("closed", &Network::closed)
      .def_property_readonly("input_size", &Network::input_size)
      .def_property_readonly("input_channels", &Network::input_channels)
      .def("set_up", &Network::set_up)
      .def("set_input", &Network::set_input)
      .def("forward", &Network::forward)
      .def("output_count", &Network::output_count)
      .def("output", &Network::output)
      .def("hidden", &Network::hidden)
      .def("save", &Network::save);
}
