// ravu devices: what each run mode would use on this machine, and why.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace ravu::tools {

struct DevicesOptions {
  bool json = false;
};

// A file that may hold clDNN's interface.
struct GpuCandidate {
  enum class State { kUsed, kPassedOver, kNotNeeded };
  std::string file;  // as it is looked for
  State state;
  std::string found;   // of the one that is used: where the system found it
  std::string reason;  // of one that was passed over
};

struct OpenClDevice {
  std::string name, kind, vendor, version, driver, platform;
  std::string refused;   // why it cannot compute; empty where it can
  std::uint64_t memory;  // bytes
  std::uint32_t compute_units;
  bool chosen;
};

struct DevicesReport {
  // Run mode 0.
  std::uint32_t threads;
  std::string instruction_set;
  std::string blas;         // the library's own words
  std::string blas_kernel;  // the processor that its kernels are made for
  // Run mode 3.
  std::string fixed_point_file;
  std::string fixed_point_problem;  // empty where the library is there
  // Run modes 2 and 4.
  std::vector<GpuCandidate> gpu_candidates;  // in the order in which they are tried
  std::string gpu_problem;                   // empty where an engine can be created
  bool lists_devices;  // whether the library that is used tells which devices there are
  std::vector<OpenClDevice> gpu_devices;
};

// Looks at this machine as a set-up of each run mode would.
DevicesReport find_devices();

std::string devices_text(const DevicesReport& report);

// Prints the report. What is missing is no failure.
void run_devices(const DevicesOptions& options);

}  // namespace ravu::tools
