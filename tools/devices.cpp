// Every library is opened as a set-up opens it, so the answer is what a set-up would get.
#include "devices.h"

#include <cblas.h>

#include "cldnn/devices.h"
#include "common/model.h"
#include "common/printing.h"
#include "graph/cldnn_handles.h"
#include "graph/fixed_point_library.h"
#include "json.h"
#include "kernels/kernels.h"

namespace ravu::tools {
namespace {

template <class Function>
std::string file_of(Function* function) {
  return file_that_holds(reinterpret_cast<const void*>(function));
}

void find_fixed_point(DevicesReport& report) {
  const FixedPointLibrary library = load_fixed_point_library();
  report.fixed_point_problem = library.problem;
  if (library) report.fixed_point_file = file_of(library.conv_create);
}

// The first candidate that opens; the others say why they do not, or that nobody asks.
cldnn::LibraryPtr find_gpu_library(std::vector<GpuCandidate>& candidates) {
  using State = GpuCandidate::State;
  cldnn::LibraryPtr used;
  for (const std::string& file : cldnn::library_candidates()) {
    GpuCandidate candidate{file, State::kNotNeeded, {}, {}};
    if (!used) {
      used = cldnn::open_library(file, candidate.reason);
      candidate.state = used ? State::kUsed : State::kPassedOver;
      if (used) candidate.found = file_of(used->create_engine);
    }
    candidates.push_back(candidate);
  }
  return used;
}

void add_device(void* context, const ravu_cldnn_device* device) {
  static_cast<std::vector<OpenClDevice>*>(context)->push_back(
      {device->name, device->kind, device->vendor, device->version, device->driver,
       device->platform, device->refused, device->memory, device->compute_units,
       device->chosen != 0});
}

void find_gpu(DevicesReport& report) {
  const cldnn::LibraryPtr library = find_gpu_library(report.gpu_candidates);
  if (!library) {
    report.gpu_problem = "no library for the GPU run modes can be loaded";
    return;
  }
  try {
    cldnn::create_engine(*library);
  } catch (const cldnn::error& error) {
    report.gpu_problem = error.what();
  }
  const auto list =
      library->file.function<decltype(ravu_cldnn_list_devices)>("ravu_cldnn_list_devices");
  report.lists_devices = list != nullptr;
  cldnn_status status = CLDNN_SUCCESS;
  if (list != nullptr) list(add_device, &report.gpu_devices, &status);
  if (status != CLDNN_SUCCESS && report.gpu_problem.empty()) {
    report.gpu_problem = library->get_last_error_message();
  }
}

std::string candidate_text(const GpuCandidate& candidate) {
  switch (candidate.state) {
    case GpuCandidate::State::kUsed:
      return "used      " + candidate.found;
    case GpuCandidate::State::kPassedOver:
      return "not used  " + candidate.reason;
    default:
      return "not tried " + candidate.file;
  }
}

std::string gigabytes(std::uint64_t bytes) {
  return fixed(static_cast<double>(bytes) / (1U << 30U), 1);
}

std::string table_of(const std::vector<OpenClDevice>& devices) {
  using enum Table::Align;
  Table table({{"device"},
               {"kind"},
               {"units", kRight},
               {"memory GiB", kRight},
               {"driver"},
               {"version"},
               {""}});
  for (const OpenClDevice& device : devices) {
    const std::string verdict = device.chosen ? "used" : device.refused;
    table.add_row({printable(device.name), device.kind, std::to_string(device.compute_units),
                   gigabytes(device.memory), printable(device.driver), printable(device.version),
                   verdict.empty() ? "not used" : verdict});
  }
  return table.text();
}

std::string gpu_text(const DevicesReport& report) {
  std::string text = "run modes 2 and 4: GPU\n";
  for (const GpuCandidate& candidate : report.gpu_candidates) {
    text += "  " + printable(candidate_text(candidate)) + '\n';
  }
  text += "  " + (report.gpu_problem.empty() ? "ready" : "not to be had: " + report.gpu_problem);
  text += '\n';
  if (!report.gpu_devices.empty()) return text + '\n' + table_of(report.gpu_devices);
  const bool ready = report.gpu_problem.empty();
  return ready && !report.lists_devices ? text + "  clDNN chooses the device\n" : text;
}

}  // namespace

DevicesReport find_devices() {
  DevicesReport report{};
  report.threads = threads_in_use();
  report.instruction_set = kernels::instruction_set();
  report.blas = openblas_get_config();
  report.blas_kernel = openblas_get_corename();
  find_fixed_point(report);
  find_gpu(report);
  return report;
}

std::string devices_text(const DevicesReport& report) {
  const std::string threads = "  threads   " + std::to_string(report.threads) + '\n';
  const bool fixed_point = report.fixed_point_problem.empty();
  return "run mode 0: processor\n" + threads + "  vectors   " + report.instruction_set +
         "\n  BLAS      " + printable(report.blas) + ", kernels for " + report.blas_kernel +
         "\n\nrun mode 3: processor, 8-bit kernels\n" + (fixed_point ? threads : "") +
         (fixed_point ? "  used      " + printable(report.fixed_point_file) + "\n  ready\n"
                      : "  not to be had: " + printable(report.fixed_point_problem) + '\n') +
         '\n' + gpu_text(report);
}

void run_devices(const DevicesOptions& options) {
  const DevicesReport report = find_devices();
  print(options.json ? to_json(report) : devices_text(report));
}

}  // namespace ravu::tools
