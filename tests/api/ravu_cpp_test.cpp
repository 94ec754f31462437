// The interface as a C++ program in another binary sees it: what the GPU run modes raise can be
// caught here, by its base class, though the library shows no type. Takes the path of a model
// written by write_test_model. Plain C++11, since a host need not be newer.
#include <cstdio>
#include <cstring>
#include <memory>
#include <stdexcept>

#include "ravu/ravu.h"

namespace {

struct Destroy {
  void operator()(ravu_network* network) const { ravu_destroy_network(network); }
};
using NetworkPtr = std::unique_ptr<ravu_network, Destroy>;

bool set_up_raises(ravu_network* network, uint32_t mode) {
  static const char kBegin[] = "failed to create engine: ";
  try {
    ravu_setup_runEngine(network, mode);
  } catch (const std::runtime_error& error) {
    if (std::strncmp(error.what(), kBegin, sizeof kBegin - 1) == 0) return true;
    std::fprintf(stderr, "mode %u: unexpected text: %s\n", mode, error.what());
    return false;
  }
  std::fprintf(stderr, "mode %u raised nothing\n", mode);
  return false;
}

bool computes(ravu_network* network) {
  const float pixels[4] = {1, 2, 3, 4};
  if (!ravu_setup_runEngine(network, RAVU_MODE_CPU)) return false;
  ravu_set_InputData_byRawData_float(network, pixels, 1, 2, 2, 1);
  ravu_forward(network, RAVU_MODE_CPU);
  const ravu_blob_view scores = ravu_getOutput_blob(network, 0);
  return scores.count == 2 && scores.data[0] == 5 && scores.data[1] == 13;
}

}  // namespace

int main(int argc, char** argv) {
#ifndef _WIN32
  // As on a machine without OpenCL devices.
  setenv("OCL_ICD_VENDORS", "/nonexistent", /*overwrite=*/1);
#endif
  if (argc != 2) {
    std::fputs("usage: ravu_cpp_test MODEL\n", stderr);
    return 2;
  }
  const NetworkPtr network(ravu_create_network_private(argv[1], false, 1));
  const bool raised = set_up_raises(network.get(), RAVU_MODE_GPU) &&
                      set_up_raises(network.get(), RAVU_MODE_GPU_KEEP);
  if (!computes(network.get())) std::fputs("the scores are wrong\n", stderr);
  return raised && computes(network.get()) ? 0 : 1;
}
