// Whole passes are timed through the engine's interface. With --layers, each of them is followed by
// a pass that this file drives itself, layer by layer as the engine does, with a clock in between.
#include "bench.h"

#include <cblas.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <random>

#include "common/failure.h"
#include "common/model.h"
#include "common/peak.h"
#include "common/printing.h"
#include "graph/cpu_backend.h"
#include "json.h"
#include "ravu/ravu.h"

namespace ravu::tools {
namespace {

// How many reference products, each followed by an untimed pass, are spread over the measurement.
constexpr std::uint32_t kReferenceRounds = 10;

template <class Work>
double seconds_of(Work work) {
  const auto start = std::chrono::steady_clock::now();
  work();
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

class Reference {
 public:
  Reference() : a_(kSize), b_(kSize), c_(kSize) {
    std::mt19937 generator(7);
    const auto draw = [&] { return static_cast<float>(generator() & 0xFFU) / 256.0F - 0.5F; };
    std::generate(a_.begin(), a_.end(), draw);
    std::generate(b_.begin(), b_.end(), draw);
  }

  double time() {
    constexpr auto kSide = static_cast<int>(kReferenceSide);
    return seconds_of([&] {
      cblas_sgemm(CblasRowMajor, CblasNoTrans, CblasNoTrans, kSide, kSide, kSide, 1.0F, a_.data(),
                  kSide, b_.data(), kSide, 0.0F, c_.data(), kSide);
    });
  }

 private:
  static constexpr std::size_t kSize = std::size_t{kReferenceSide} * kReferenceSide;
  std::vector<float> a_, b_, c_;
};

// What forward_cpu does, with the time that each layer took. The mean is subtracted in the input,
// so every pass needs the input anew.
void run_layers(Network& network, std::uint32_t mode, std::vector<std::vector<double>>& seconds) {
  subtract_mean(network);
  for (std::size_t i = 0; i < network.layers.size(); ++i) {
    seconds[i].push_back(seconds_of([&] { forward_layer(*network.layers[i], mode); }));
  }
}

struct Measurements {
  std::vector<double> passes;
  std::vector<double> products;
  std::vector<double> peaks;
  std::vector<std::vector<double>> layers;
};

Measurements measure(Network& network, const BenchOptions& options) {
  const auto pixels = seeded_pixels(network.input->count);
  const auto pass = [&] {
    feed(network, pixels);
    return seconds_of([&] { run(network, options.mode); });
  };
  Measurements found;
  if (options.layers) found.layers.resize(network.layers.size());
  std::optional<Reference> reference;
  if (options.reference) reference.emplace().time();
  for (std::uint32_t i = 0; i < options.warm_up; ++i) pass();

  const std::uint32_t spacing = std::max(1U, options.repeats / kReferenceRounds);
  for (std::uint32_t i = 0; i < options.repeats; ++i) {
    if (reference && i % spacing == 0) {
      found.products.push_back(reference->time());
      pass();  // brings the network back into the caches
    }
    found.passes.push_back(pass());
    if (options.layers) {
      if (i % spacing == 0) {
        found.peaks.push_back(time_peak(network.workspace.workers()));
        pass();
      }
      feed(network, pixels);
      run_layers(network, options.mode, found.layers);
    }
  }
  return found;
}

BenchReport report_of(const Network& network, const BenchOptions& options,
                      const Measurements& found) {
  BenchReport report;
  report.model = options.model;
  report.input = network.input->dims;
  report.mode = options.mode;
  report.threads = threads_in_use();
  report.warm_up = options.warm_up;
  report.repeats = options.repeats;
  report.pass = summarise_times(found.passes);
  if (!found.products.empty()) report.reference = summarise_times(found.products);
  if (!found.peaks.empty()) report.peak = summarise_times(found.peaks);
  const std::vector<std::string> kernels = layer_kernels(network);
  for (std::size_t i = 0; i < network.layers.size(); ++i) {
    const BaseLayer& layer = *network.layers[i];
    LayerTiming timing;
    timing.multiply_adds = layer_costs(layer).multiply_adds;
    report.multiply_adds += timing.multiply_adds;
    if (!options.layers) continue;
    timing.class_name = layer_class(layer);
    timing.kernel = kernels[i];
    if (const Blob* output = last_output(layer); output != nullptr) {
      timing.output = output->name;
      timing.shape = output->dims;
    }
    timing.time = summarise_times(found.layers[i]);
    report.layers.push_back(timing);
  }
  return report;
}

std::string milliseconds(double seconds) {
  return fixed(seconds * 1e3, 3);
}

std::vector<std::string> timing_row(const std::string& name, const Timing& time,
                                    std::uint64_t multiply_adds) {
  return {name,
          milliseconds(time.minimum),
          milliseconds(time.lower),
          milliseconds(time.median),
          milliseconds(time.upper),
          milliseconds(time.maximum),
          fixed(gflops(multiply_adds, time.minimum), 1),
          fixed(gflops(multiply_adds, time.median), 1)};
}

// Of all threads, at the fastest probe.
double peak_gflops(const BenchReport& report) {
  if (!report.peak) return 0;
  return gflops(peak_multiply_adds(report.threads), report.peak->minimum);
}

std::string layers_text(const BenchReport& report) {
  using enum Table::Align;
  Table table({{"index", kRight},
               {"class"},
               {"kernel"},
               {"output"},
               {"shape"},
               {"min ms", kRight},
               {"median ms", kRight},
               {"share %", kRight},
               {"GF/s at min", kRight},
               {"GF/s at median", kRight},
               {"% of peak", kRight}});
  const double peak = peak_gflops(report);
  double sum = 0;
  for (const LayerTiming& layer : report.layers) sum += layer.time.median;
  std::size_t index = 0;
  for (const LayerTiming& layer : report.layers) {
    const bool counted = layer.multiply_adds > 0;
    table.add_row({std::to_string(index++), layer.class_name,
                   layer.kernel.empty() ? "-" : layer.kernel,
                   layer.output.empty() ? "-" : printable(layer.output), dims_text(layer.shape),
                   milliseconds(layer.time.minimum), milliseconds(layer.time.median),
                   fixed(sum > 0 ? 100 * layer.time.median / sum : 0, 1),
                   counted ? fixed(gflops(layer.multiply_adds, layer.time.minimum), 1) : "-",
                   counted ? fixed(gflops(layer.multiply_adds, layer.time.median), 1) : "-",
                   counted && peak > 0
                       ? fixed(100 * gflops(layer.multiply_adds, layer.time.minimum) / peak, 0)
                       : "-"});
  }
  return '\n' + table.text();
}

std::string text_of(const BenchReport& report) {
  using enum Table::Align;
  std::string text =
      "input    " + dims_text(report.input) + ", run mode " + std::to_string(report.mode) +
      ", BLAS threads " + std::to_string(report.threads) + "\npasses   " +
      std::to_string(report.repeats) + " after " + std::to_string(report.warm_up) +
      " to warm up, " + std::to_string(report.multiply_adds) + " multiply-adds each\n\n";
  Table table({{""},
               {"min ms", kRight},
               {"quartile", kRight},
               {"median", kRight},
               {"quartile", kRight},
               {"max ms", kRight},
               {"GF/s at min", kRight},
               {"GF/s at median", kRight}});
  table.add_row(timing_row("pass", report.pass, report.multiply_adds));
  if (report.reference) {
    table.add_row(timing_row("sgemm", *report.reference, kReferenceMultiplyAdds));
    const auto ratio = [&](double pass, double product) {
      return fixed(gflops(report.multiply_adds, pass) / gflops(kReferenceMultiplyAdds, product), 3);
    };
    table.add_row({"pass/sgemm", "-", "-", "-", "-", "-",
                   ratio(report.pass.minimum, report.reference->minimum),
                   ratio(report.pass.median, report.reference->median)});
  }
  if (report.peak) {
    table.add_row(timing_row("peak", *report.peak, peak_multiply_adds(report.threads)));
  }
  text += table.text();
  return report.layers.empty() ? text : text + layers_text(report);
}

}  // namespace

Timing summarise_times(std::vector<double> seconds) {
  std::sort(seconds.begin(), seconds.end());
  const auto at = [&](double part) {
    const double place = part * static_cast<double>(seconds.size() - 1);
    const auto below = static_cast<std::size_t>(place);
    const auto above = std::min(below + 1, seconds.size() - 1);
    return std::lerp(seconds[below], seconds[above], place - static_cast<double>(below));
  };
  return {at(0), at(0.25), at(0.5), at(0.75), at(1)};
}

double gflops(std::uint64_t multiply_adds, double seconds) {
  // A clock that did not move says nothing about speed.
  return seconds > 0 ? 2e-9 * static_cast<double>(multiply_adds) / seconds : 0;
}

void run_bench(const BenchOptions& options) {
  set_threads(options.threads);
  const auto network = open_model(options.model, /*channel_mean=*/false, options.batch);
  if (network->input->count == 0) throw Failure(options.model + ": the input has no elements");
  set_up(*network, options.mode);
  const BenchReport report = report_of(*network, options, measure(*network, options));
  print(options.json ? to_json(report) : text_of(report));
}

}  // namespace ravu::tools
