// Every run loads its own network: the GPU modes find the weights as the file has them.
#include "gpu/modes.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <limits>
#include <stdexcept>

namespace ravu::test {

Result result_in(std::uint32_t mode, const Bytes& model, Dims input,
                 const std::vector<float>& values) {
  LoadOptions options;
  options.batch = input[0];
  LoadResult loaded = load(model, options);
  if (!loaded.network) throw std::invalid_argument("the model does not load: " + loaded.reason);
  Network& network = *loaded.network;
  ravu_network* handle = to_handle(&network);
  const auto feed = [&] {
    ravu_set_InputData_byRawData_float(handle, values.data(), input[0], input[1], input[2],
                                       input[3]);
  };
  feed();
  if (!ravu_setup_runEngine(handle, mode)) throw std::runtime_error("the set-up failed");
  feed();
  ravu_forward(handle, mode);
  const Blob& output = *last_output(*network.layers.back());
  return {output.dims, values_of(output)};
}

std::vector<float> input_for(Dims dims, unsigned seed) {
  return random_values(std::size_t{dims[0]} * dims[1] * dims[2] * dims[3], seed);
}

double distance(const Result& reference, const Result& result) {
  constexpr double kFar = std::numeric_limits<double>::infinity();
  if (reference.dims != result.dims || reference.values.size() != result.values.size() ||
      reference.values.empty()) {
    return kFar;
  }
  const auto [least, most] = std::minmax_element(reference.values.begin(), reference.values.end());
  const double range = std::max(static_cast<double>(*most) - *least, 1e-6);
  double largest = 0;
  for (std::size_t i = 0; i < result.values.size(); ++i) {
    const double difference = std::abs(static_cast<double>(result.values[i]) - reference.values[i]);
    if (!(difference <= largest)) largest = std::isnan(difference) ? kFar : difference;
  }
  return largest / range;
}

void expect_modes_agree(const ModelBuilder& model, Dims input, const std::string& what,
                        unsigned seed) {
  const auto values = input_for(input, seed);
  const Bytes bytes = model.bytes();
  const Result reference = result_in(RAVU_MODE_CPU, bytes, input, values);
  const auto& v = reference.values;
  EXPECT_FALSE(std::all_of(v.begin(), v.end(), [&](float x) { return x == v.front(); }) &&
               v.size() > 1)
      << what << ": the reference says nothing";
  for (const std::uint32_t mode : {RAVU_MODE_GPU, RAVU_MODE_GPU_KEEP}) {
    EXPECT_LE(distance(reference, result_in(mode, bytes, input, values)), kTolerance)
        << what << ", mode " << mode;
  }
}

}  // namespace ravu::test
