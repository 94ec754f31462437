// Who keeps whom alive. The address sanitizer and the leak check make these tests sharp.
#include <gtest/gtest.h>

#include "support/Graph.h"

namespace ravu::opencl::test {
namespace {

// in -> out, each with the id texts in buffers that are overwritten after the add.
cldnn_topology small_topology(const Dims& dims) {
  cldnn_status status = CLDNN_SUCCESS;
  cldnn_topology topology = cldnn_create_topology(&status);
  std::string in = "in";
  std::string out = "out";
  std::string none;
  cldnn_input_layout_desc input{};
  input.header.type = cldnn_input_layout_type_id(&status);
  input.header.id = in.c_str();
  input.layout = layout(dims, CLDNN_FORMAT_YXFB);
  cldnn_add_primitive(topology, &input.header, &status);
  EXPECT_EQ(status, CLDNN_SUCCESS);
  const char* names[] = {in.c_str()};
  cldnn_activation_desc activation{};
  activation.header.type = cldnn_activation_type_id(&status);
  activation.header.id = out.c_str();
  activation.header.input = {names, 1};
  activation.slope_input = none.c_str();
  activation.negative_slope = 0.5f;
  cldnn_add_primitive(topology, &activation.header, &status);
  EXPECT_EQ(status, CLDNN_SUCCESS);
  in = "??";
  out = "???";
  activation = {};
  return topology;
}

TEST(LifeCycle, EverythingCanBeReleasedAsSoonAsTheNextObjectIsThere) {
  cldnn_status status = CLDNN_SUCCESS;
  cldnn_engine engine = cldnn_create_engine(CLDNN_ENGINE_OPENCL, 0, nullptr, &status);
  cldnn_topology topology = small_topology({1, 1, 1, 2});
  cldnn_program program = cldnn_build_program(engine, topology, nullptr, 0, &status);
  cldnn_release_topology(topology, nullptr);
  cldnn_memory memory = upload(engine, along_x({4, -4}), CLDNN_FORMAT_YXFB);
  cldnn_release_engine(engine, nullptr);
  cldnn_network network = cldnn_allocate_network(program, &status);
  cldnn_release_program(program, nullptr);
  cldnn_set_network_input(network, "in", memory, &status);
  cldnn_release_memory(memory, nullptr);
  cldnn_execute_network(network, nullptr, 0, &status);
  const cldnn_network_output output = cldnn_get_network_output(network, "out", &status);
  ASSERT_EQ(status, CLDNN_SUCCESS) << cldnn_get_last_error_message();
  cldnn_release_network(network, nullptr);
  cldnn_wait_for_event(output.event, &status);
  EXPECT_EQ(status, CLDNN_SUCCESS);
  EXPECT_EQ(download(output.memory).data, (std::vector<float>{4, -2}));
  cldnn_release_event(output.event, nullptr);
  cldnn_release_memory(output.memory, nullptr);
}

TEST(LifeCycle, OneTopologyServesSeveralProgramsAndOneProgramSeveralNetworks) {
  cldnn_status status = CLDNN_SUCCESS;
  cldnn_topology topology = small_topology({1, 1, 1, 2});
  cldnn_memory memory = upload(shared_engine(), along_x({4, -4}), CLDNN_FORMAT_YXFB);
  for (int i = 0; i < 2; ++i) {
    cldnn_program program = cldnn_build_program(shared_engine(), topology, nullptr, 0, &status);
    cldnn_network networks[] = {cldnn_allocate_network(program, &status),
                                cldnn_allocate_network(program, &status)};
    cldnn_release_program(program, nullptr);
    for (cldnn_network network : networks) {
      cldnn_set_network_input(network, "in", memory, &status);
      cldnn_execute_network(network, nullptr, 0, &status);
      EXPECT_EQ(status, CLDNN_SUCCESS);
      cldnn_release_network(network, nullptr);
    }
  }
  cldnn_release_memory(memory, nullptr);
  cldnn_release_topology(topology, nullptr);
}

TEST(LifeCycle, ReferencesAreCounted) {
  cldnn_status status = CLDNN_SUCCESS;
  cldnn_memory memory = upload(shared_engine(), along_x({1}), CLDNN_FORMAT_YXFB);
  cldnn_retain_memory(memory, &status);
  cldnn_release_memory(memory, &status);
  EXPECT_EQ(download(memory).data, (std::vector<float>{1}));
  cldnn_release_memory(memory, &status);
  EXPECT_EQ(status, CLDNN_SUCCESS);
}

TEST(LifeCycle, AFailedAllocationLeavesTheProgramUsable) {
  cldnn_status status = CLDNN_SUCCESS;
  cldnn_topology topology = small_topology({1, 1, 0, 2});
  cldnn_program program = cldnn_build_program(shared_engine(), topology, nullptr, 0, &status);
  EXPECT_EQ(status, CLDNN_SUCCESS);
  for (int i = 0; i < 2; ++i) {
    EXPECT_EQ(cldnn_allocate_network(program, &status), nullptr);
    EXPECT_EQ(status, CLDNN_OUT_OF_RESOURCES);
  }
  cldnn_release_program(program, &status);
  EXPECT_EQ(status, CLDNN_SUCCESS);
  cldnn_release_topology(topology, nullptr);
}

}  // namespace
}  // namespace ravu::opencl::test
