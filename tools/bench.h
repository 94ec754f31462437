// ravu bench: how long a network takes, and how that compares with the matrix product of the BLAS
// library on the same machine at the same time.
#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "common/layer_costs.h"

namespace ravu::tools {

struct BenchOptions {
  std::string model;
  std::uint32_t warm_up = 3;
  std::uint32_t repeats = 20;
  std::uint32_t batch = 1;
  std::uint32_t mode = 0;
  std::uint32_t threads = 0;  // 0: the BLAS library's own default
  bool layers = false;
  bool reference = false;
  bool load = false;
  bool json = false;
};

// Seconds: the extremes, the quartiles and the median of a number of measurements.
struct Timing {
  double minimum = 0, lower = 0, median = 0, upper = 0, maximum = 0;
};

// Quartiles lie between measurements where their number asks for it. Needs at least one.
Timing summarise_times(std::vector<double> seconds);

// Billions of operations in a second, two for each multiply-add.
double gflops(std::uint64_t multiply_adds, double seconds);

struct LayerTiming {
  std::string class_name;
  std::string kernel;  // empty for layers that have only one; see layer_kernels
  std::string output;
  std::array<std::uint32_t, 4> shape{};
  std::uint64_t multiply_adds = 0;
  Timing time;
};

struct BenchReport {
  std::string model;
  std::array<std::uint32_t, 4> input{};
  std::uint32_t mode = 0;
  std::uint32_t threads = 0;
  std::uint32_t warm_up = 0;
  std::uint32_t repeats = 0;
  std::uint64_t multiply_adds = 0;  // of a pass
  Timing pass;
  std::optional<Timing> reference;  // one product of kReferenceSide
  std::optional<Timing> peak;       // multiply-adds without memory; with the layers
  std::vector<LayerTiming> layers;  // empty unless asked for
};

// The reference product multiplies two square matrices of this side.
inline constexpr std::uint32_t kReferenceSide = 1024;
inline constexpr std::uint64_t kReferenceMultiplyAdds =
    std::uint64_t{kReferenceSide} * kReferenceSide * kReferenceSide;

// What it takes to get a network from its file to its first two passes.
struct LoadReport {
  std::string model;
  std::uint64_t bytes = 0;  // of the file, which the system has in its cache
  std::uint32_t threads = 0;
  std::uint32_t repeats = 0;
  Timing read;  // the file, piece by piece, as `cat` does
  Timing load;
  Timing set_up;
  Timing first_pass, second_pass;
};

// These throw Failure.
LoadReport measure_load(const BenchOptions& options);
void run_load_bench(const BenchOptions& options);
void run_bench(const BenchOptions& options);

}  // namespace ravu::tools
