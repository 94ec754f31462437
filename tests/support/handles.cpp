// Handles and views.
#include "support/handles.h"

#include <stdexcept>

namespace ravu::test {

Handle::Handle(const ModelBuilder& model, std::uint32_t batch, bool channel_mean)
    : handle_(
          ravu_create_network_private(TemporaryFile(model.bytes()).path(), channel_mean, batch)) {
  if (handle_ == nullptr) throw std::invalid_argument("the test's model does not load");
}

Dims dims_of(const ravu_blob_view& view) {
  return {view.dims[0], view.dims[1], view.dims[2], view.dims[3]};
}

std::vector<float> values_of(const ravu_blob_view& view) {
  if (view.data == nullptr) return {};
  return {view.data, view.data + view.count};
}

bool is_all_zero(const ravu_blob_view& view) {
  return view.data == nullptr && view.count == 0 && dims_of(view) == Dims{0, 0, 0, 0};
}

std::vector<float> run(ravu_network* network, const std::vector<float>& image, std::uint32_t mode) {
  ravu_set_InputData_byRawData_float(network, image.data(), 1, 2, 2, 1);
  ravu_forward(network, mode);
  return values_of(ravu_getOutput_blob(network, 0));
}

std::vector<float> input_values(const Handle& handle) {
  return values_of(*handle.network().input);
}

}  // namespace ravu::test
