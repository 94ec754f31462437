// ravu devices: what it says of a machine, made up and real.
#include "devices.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include "json.h"
#include "support/program.h"

namespace ravu::test {
namespace {

using nlohmann::json;
using ::testing::Contains;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::Not;
using ::testing::StartsWith;
using tools::DevicesReport;
using tools::GpuCandidate;

// A machine with everything but clDNN.
DevicesReport full_machine() {
  DevicesReport report{};
  report.threads = 8;
  report.instruction_set = "AVX2";
  report.blas = "OpenBLAS 0.3.21";
  report.blas_kernel = "Haswell";
  report.fixed_point_file = "/lib/libravu_fixpoint.so";
  report.gpu_candidates = {
      {"libclDNN64.so", GpuCandidate::State::kPassedOver, "", "libclDNN64.so: no such file"},
      {"/lib/libravu_cldnn.so", GpuCandidate::State::kUsed, "/lib/libravu_cldnn.so", ""},
      {"libravu_cldnn.so", GpuCandidate::State::kNotNeeded, "", ""}};
  report.lists_devices = true;
  report.gpu_devices = {
      {"Old GPU", "GPU", "V", "OpenCL 1.1", "7", "P", "does not have OpenCL 1.2", 1, 2, false},
      {"Fast GPU", "GPU", "V", "OpenCL 3.0", "9", "P", "", std::uint64_t{3} << 29, 64, true},
      {"CPU", "processor", "V", "OpenCL 3.0", "1", "Q", "", std::uint64_t{4} << 30, 4, false}};
  return report;
}

TEST(Devices, TextSaysWhatIsUsedAndWhyTheRestIsNot) {
  EXPECT_EQ(tools::devices_text(full_machine()),
            "run mode 0: processor\n"
            "  threads   8\n"
            "  vectors   AVX2\n"
            "  BLAS      OpenBLAS 0.3.21, kernels for Haswell\n"
            "\n"
            "run mode 3: processor, 8-bit kernels\n"
            "  threads   8\n"
            "  used      /lib/libravu_fixpoint.so\n"
            "  ready\n"
            "\n"
            "run modes 2 and 4: GPU\n"
            "  not used  libclDNN64.so: no such file\n"
            "  used      /lib/libravu_cldnn.so\n"
            "  not tried libravu_cldnn.so\n"
            "  ready\n"
            "\n"
            "device    kind       units  memory GiB  driver  version\n"
            "Old GPU   GPU            2         0.0  7       OpenCL 1.1  does not have OpenCL 1.2\n"
            "Fast GPU  GPU           64         1.5  9       OpenCL 3.0  used\n"
            "CPU       processor      4         4.0  1       OpenCL 3.0  not used\n");
}

TEST(Devices, TextOfAMachineWithoutLibrariesNamesEachReason) {
  DevicesReport report = full_machine();
  report.fixed_point_file.clear();
  report.fixed_point_problem = "the fixed-point library cannot be loaded: no such file";
  report.gpu_candidates = {
      {"libclDNN64.so", GpuCandidate::State::kPassedOver, "", "libclDNN64.so: no such file"}};
  report.gpu_devices.clear();
  report.gpu_problem = "no library for the GPU run modes can be loaded";
  const std::string text = tools::devices_text(report);
  EXPECT_THAT(text, HasSubstr("8-bit kernels\n  not to be had: the fixed-point library cannot be "
                              "loaded: no such file\n"));
  EXPECT_THAT(text, HasSubstr("GPU\n  not used  libclDNN64.so: no such file\n"
                              "  not to be had: no library for the GPU run modes can be loaded\n"));
  EXPECT_THAT(text, Not(HasSubstr("ready")));
}

TEST(Devices, TextOfClDnnItselfLeavesTheChoiceToIt) {
  DevicesReport report = full_machine();
  report.gpu_candidates = {
      {"libclDNN64.so", GpuCandidate::State::kUsed, "/usr/lib/libclDNN64.so", ""}};
  report.gpu_devices.clear();
  report.lists_devices = false;
  EXPECT_THAT(
      tools::devices_text(report),
      HasSubstr("  used      /usr/lib/libclDNN64.so\n  ready\n  clDNN chooses the device\n"));
}

TEST(Devices, JsonHoldsTheSame) {
  const json report = json::parse(tools::to_json(full_machine()));
  EXPECT_EQ(report["processor"]["threads"], 8);
  EXPECT_EQ(report["processor"]["instruction_set"], "AVX2");
  EXPECT_EQ(report["fixed_point"]["library"], "/lib/libravu_fixpoint.so");
  EXPECT_EQ(report["fixed_point"]["problem"], json());
  EXPECT_EQ(report["gpu"]["ready"], true);
  EXPECT_EQ(report["gpu"]["libraries"][0]["state"], "not used");
  EXPECT_EQ(report["gpu"]["libraries"][1]["found"], "/lib/libravu_cldnn.so");
  EXPECT_EQ(report["gpu"]["libraries"][2]["state"], "not tried");
  ASSERT_EQ(report["gpu"]["devices"].size(), 3U);
  EXPECT_EQ(report["gpu"]["devices"][0]["refused"], "does not have OpenCL 1.2");
  EXPECT_EQ(report["gpu"]["devices"][1]["used"], true);
  EXPECT_EQ(report["gpu"]["devices"][1]["memory_bytes"], std::uint64_t{3} << 29);
}

TEST(ProgramDevices, DescribesThisMachine) {
  const Outcome outcome = run_ravu({"devices", "--json"});
  EXPECT_EQ(outcome.code, 0);
  EXPECT_THAT(outcome.err, IsEmpty());
  const json report = json::parse(outcome.out);
  EXPECT_GE(report["processor"]["threads"], 1);
  EXPECT_THAT(report["processor"]["blas"].get<std::string>(), HasSubstr("OpenBLAS"));
  EXPECT_NE(report["processor"]["instruction_set"], "");
#ifdef RAVU_WITH_FIXPOINT
  EXPECT_THAT(report["fixed_point"]["library"].get<std::string>(),
              HasSubstr("libravu_fixpoint.so"));
#endif
#ifdef RAVU_WITH_CLDNN
  EXPECT_EQ(report["gpu"]["ready"], true);
  int used = 0;
  for (const json& device : report["gpu"]["devices"]) used += device["used"] == true;
  EXPECT_EQ(used, 1);
#endif
  EXPECT_THAT(run_ravu({"devices"}).out, StartsWith("run mode 0: processor\n  threads   "));
}

TEST(ProgramDevices, WithoutOpenClDevicesSaysSoAndSucceeds) {
  const NoOpenClDevices none;
  const Outcome outcome = run_ravu({"devices"});
  EXPECT_EQ(outcome.code, 0);
  EXPECT_THAT(outcome.err, IsEmpty());
  EXPECT_THAT(lines_of(outcome.out), Contains(StartsWith("  not to be had: ")));
  const json report = json::parse(run_ravu({"devices", "--json"}).out);
  EXPECT_EQ(report["gpu"]["ready"], false);
  EXPECT_THAT(report["gpu"]["devices"], IsEmpty());
  EXPECT_NE(report["gpu"]["problem"], json());
}

}  // namespace
}  // namespace ravu::test
