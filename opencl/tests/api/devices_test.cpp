// The list of devices is what engines choose from.
#include "cldnn/devices.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <set>
#include <string>
#include <vector>

#include "support/Graph.h"
#include "support/StandIn.h"

namespace ravu::opencl::test {
namespace {

struct Listed {
  std::string name, kind, version, platform, refused;
  std::uint64_t memory;
  std::uint32_t compute_units;
  bool chosen;
};

std::vector<Listed> listed_devices() {
  std::vector<Listed> list;
  cldnn_status status = CLDNN_ERROR;
  ravu_cldnn_list_devices(
      [](void* context, const ravu_cldnn_device* device) {
        static_cast<std::vector<Listed>*>(context)->push_back(
            {device->name, device->kind, device->version, device->platform, device->refused,
             device->memory, device->compute_units, device->chosen != 0});
      },
      &list, &status);
  EXPECT_EQ(status, CLDNN_SUCCESS) << cldnn_get_last_error_message();
  return list;
}

TEST(Devices, OneIsChosenAndSaysWhatItIs) {
  const std::set<std::string> kinds{"GPU", "accelerator", "processor"};
  std::size_t chosen = 0;
  for (const Listed& device : listed_devices()) {
    EXPECT_FALSE(device.name.empty());
    EXPECT_FALSE(device.platform.empty());
    if (!device.chosen) continue;
    ++chosen;
    EXPECT_EQ(kinds.count(device.kind), 1U) << device.kind;
    EXPECT_EQ(device.version.rfind("OpenCL ", 0), 0U) << device.version;
    EXPECT_EQ(device.refused, "");
    EXPECT_GT(device.memory, 0U);
    EXPECT_GT(device.compute_units, 0U);
  }
  EXPECT_EQ(chosen, 1U);
}

TEST(Devices, AGpuComesBeforeAnAcceleratorBeforeAProcessor) {
  devices_are_tripled = true;
  const std::vector<Listed> devices = listed_devices();
  devices_are_tripled = false;
  ASSERT_GE(devices.size(), 3U);
  const std::vector<std::string> kinds{"processor", "accelerator", "GPU"};
  std::size_t first_gpu = devices.size();
  for (std::size_t i = 0; i < devices.size(); ++i) {
    EXPECT_EQ(devices[i].kind, kinds[i % 3]);
    if (i % 3 == 2 && devices[i].refused.empty()) first_gpu = std::min(first_gpu, i);
  }
  for (std::size_t i = 0; i < devices.size(); ++i) EXPECT_EQ(devices[i].chosen, i == first_gpu);
}

TEST(Devices, AListWithoutAVisitorIsRefused) {
  cldnn_status status = CLDNN_SUCCESS;
  ravu_cldnn_list_devices(nullptr, nullptr, &status);
  EXPECT_EQ(status, CLDNN_ERROR);
  EXPECT_STREQ(cldnn_get_last_error_message(), "the visitor is null");
}

}  // namespace
}  // namespace ravu::opencl::test
