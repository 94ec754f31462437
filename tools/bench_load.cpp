// Loading and setting up a network, beside reading its file as `cat` does: the least that loading
// can take.
#include <chrono>
#include <cstdio>
#include <memory>

#include "bench.h"
#include "common/failure.h"
#include "common/model.h"
#include "common/printing.h"
#include "json.h"

namespace ravu::tools {
namespace {

struct CloseFile {
  void operator()(std::FILE* file) const { std::fclose(file); }
};

// Reads a file piece by piece and keeps nothing of it. Returns its length.
std::uint64_t read_through(const std::string& path) {
  const std::unique_ptr<std::FILE, CloseFile> file(std::fopen(path.c_str(), "rb"));
  if (!file) throw Failure(path + ": cannot be read");
  std::vector<char> piece(std::size_t{1} << 17);
  std::uint64_t bytes = 0;
  std::size_t got = 0;
  do {
    got = std::fread(piece.data(), 1, piece.size(), file.get());
    bytes += got;
  } while (got > 0);
  return bytes;
}

// Seconds since the last call, or since it was made.
class StopWatch {
 public:
  double lap() {
    const auto now = std::chrono::steady_clock::now();
    const double seconds = std::chrono::duration<double>(now - last_).count();
    last_ = now;
    return seconds;
  }

 private:
  std::chrono::steady_clock::time_point last_ = std::chrono::steady_clock::now();
};

}  // namespace

LoadReport measure_load(const BenchOptions& options) {
  constexpr std::size_t kStages = 5;
  std::vector<double> seconds[kStages];
  LoadReport report;
  report.model = options.model;
  report.repeats = options.repeats;
  read_through(options.model);  // into the system's cache
  for (std::uint32_t i = 0; i < options.repeats; ++i) {
    StopWatch watch;
    report.bytes = read_through(options.model);
    seconds[0].push_back(watch.lap());
    const auto network = open_model(options.model, /*channel_mean=*/false, options.batch);
    seconds[1].push_back(watch.lap());
    set_up(*network, options.mode);
    seconds[2].push_back(watch.lap());
    const auto pixels = seeded_pixels(network->input->count);
    for (const std::size_t pass : {3U, 4U}) {
      feed(*network, pixels);
      watch.lap();
      run(*network, options.mode);
      seconds[pass].push_back(watch.lap());
    }
  }
  report.threads = threads_in_use();
  report.read = summarise_times(seconds[0]);
  report.load = summarise_times(seconds[1]);
  report.set_up = summarise_times(seconds[2]);
  report.first_pass = summarise_times(seconds[3]);
  report.second_pass = summarise_times(seconds[4]);
  return report;
}

namespace {

std::string load_text(const LoadReport& report) {
  using enum Table::Align;
  Table table({{""}, {"min ms", kRight}, {"median ms", kRight}, {"MB/s at min", kRight}});
  const auto add = [&](const char* name, const Timing& time, bool reads) {
    const double rate =
        time.minimum > 0 ? 1e-6 * static_cast<double>(report.bytes) / time.minimum : 0;
    table.add_row({name, fixed(time.minimum * 1e3, 3), fixed(time.median * 1e3, 3),
                   reads ? fixed(rate, 0) : "-"});
  };
  add("read", report.read, true);
  add("load", report.load, true);
  add("set-up", report.set_up, true);
  add("first pass", report.first_pass, false);
  add("second pass", report.second_pass, false);
  return std::to_string(report.bytes) + " bytes, BLAS threads " + std::to_string(report.threads) +
         ", " + std::to_string(report.repeats) + " times\n\n" + table.text();
}

}  // namespace

void run_load_bench(const BenchOptions& options) {
  set_threads(options.threads);
  const LoadReport report = measure_load(options);
  print(options.json ? to_json(report) : load_text(report));
}

}  // namespace ravu::tools
