// Networks: inputs, outputs, executions.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <thread>
#include <vector>

#include "support/Graph.h"
#include "support/reference.h"

namespace ravu::opencl::test {
namespace {

cldnn_activation_desc rectified(Graph& graph, const char* id, const char* from, float slope = 0) {
  auto desc = graph.describe<cldnn_activation_desc>(cldnn_activation_type_id, id, {from});
  desc.negative_slope = slope;
  desc.slope_input = "";
  return desc;
}

TEST(OutputNames, AreThePrimitivesThatNobodyReadsUnusedInputsAndDataIncluded) {
  Graph graph;
  graph.input("in", zeros({1, 2, 2, 2}));
  graph.input("unused", zeros({1, 2, 2, 2}));
  graph.data("constant", zeros({1, 2, 2, 2}));
  graph.data("slopes", along_x({1, 2}));
  auto desc = rectified(graph, "out", "in");
  desc.slope_input = "slopes";
  graph.add(desc.header);
  ASSERT_EQ(graph.run(), Stage::kDone) << graph.text();
  std::vector<std::string> names = graph.output_names();
  std::sort(names.begin(), names.end());
  EXPECT_EQ(names, (std::vector<std::string>{"constant", "out", "unused"}));
}

TEST(OutputNames, NeedABufferOfTheExactSize) {
  Graph graph;
  graph.input("abc", zeros({1, 2, 2, 2}));
  graph.input("de", zeros({1, 2, 2, 2}));
  ASSERT_EQ(graph.run(), Stage::kDone);
  cldnn_status status = CLDNN_SUCCESS;
  size_t needed = 0;
  cldnn_get_network_output_names(graph.network(), nullptr, 0, &needed, &status);
  EXPECT_EQ(status, CLDNN_INVALID_ARG);
  EXPECT_EQ(needed, 8u);
  char buffer[9] = "--------";
  cldnn_get_network_output_names(graph.network(), buffer, 7, &needed, &status);
  EXPECT_EQ(status, CLDNN_INVALID_ARG);
  EXPECT_STREQ(buffer, "--------");
  cldnn_get_network_output_names(graph.network(), buffer, 8, &needed, &status);
  EXPECT_EQ(status, CLDNN_SUCCESS);
  EXPECT_EQ(std::memcmp(buffer, "abc\0de\0\0", 8), 0);
  cldnn_get_network_output_names(graph.network(), buffer, 8, nullptr, &status);
  EXPECT_EQ(status, CLDNN_SUCCESS);
}

TEST(OutputNames, OfAnEmptyNetworkAreAnError) {
  cldnn_status status = CLDNN_SUCCESS;
  cldnn_topology topology = cldnn_create_topology(&status);
  cldnn_program program = cldnn_build_program(shared_engine(), topology, nullptr, 0, &status);
  cldnn_network network = cldnn_allocate_network(program, &status);
  ASSERT_EQ(status, CLDNN_SUCCESS);
  char buffer[8];
  size_t needed = 0;
  cldnn_get_network_output_names(network, buffer, sizeof(buffer), &needed, &status);
  EXPECT_EQ(status, CLDNN_ERROR);
  cldnn_release_network(network, nullptr);
  cldnn_release_program(program, nullptr);
  cldnn_release_topology(topology, nullptr);
}

TEST(Output, AnyExecutedPrimitiveCanBeFetchedAndItsHandleStays) {
  Graph graph;
  const Values in = random_values({1, 3, 2, 2}, 1);
  graph.input("in", in);
  graph.add(rectified(graph, "middle", "in").header);
  graph.add(rectified(graph, "end", "middle").header);
  expect_near(graph.result("middle"), rectify(in, {0}));
  expect_near(graph.result("in"), in, 0);
  cldnn_status status = CLDNN_SUCCESS;
  const cldnn_network_output first = cldnn_get_network_output(graph.network(), "end", &status);
  graph.run_again("end");
  const cldnn_network_output second = cldnn_get_network_output(graph.network(), "end", &status);
  EXPECT_EQ(first.memory, second.memory);
  EXPECT_NE(first.event, second.event);
  for (const cldnn_network_output& output : {first, second}) {
    cldnn_release_event(output.event, nullptr);
    cldnn_release_memory(output.memory, nullptr);
  }
}

TEST(Output, BeforeTheFirstExecutionOrOfAnUnknownNameIsAnError) {
  cldnn_status status = CLDNN_SUCCESS;
  Graph graph;
  graph.data("data", along_x({1}));
  ASSERT_EQ(graph.run(), Stage::kDone);
  for (const char* name : {"nobody", static_cast<const char*>(nullptr)}) {
    const cldnn_network_output output = cldnn_get_network_output(graph.network(), name, &status);
    EXPECT_EQ(status, CLDNN_ERROR);
    EXPECT_EQ(output.memory, nullptr);
    EXPECT_EQ(output.event, nullptr);
  }
  Graph inputless;
  auto desc = inputless.describe<cldnn_input_layout_desc>(cldnn_input_layout_type_id, "in", {});
  desc.layout = layout({1, 1, 1, 1}, CLDNN_FORMAT_YXFB);
  inputless.add(desc.header);
  EXPECT_EQ(inputless.run(), Stage::kExecute);
  cldnn_get_network_output(inputless.network(), "in", &status);
  EXPECT_EQ(status, CLDNN_ERROR);
}

TEST(SetInput, RefusesOtherLayoutsAndNames) {
  Graph graph;
  graph.input("in", random_values({1, 3, 2, 2}, 1));
  graph.add(rectified(graph, "out", "in").header);
  ASSERT_EQ(graph.run(), Stage::kDone);
  cldnn_status status = CLDNN_SUCCESS;
  const auto set = [&](const char* id, const Dims& dims, int32_t format) {
    cldnn_memory memory = upload(graph.engine(), zeros(dims), format);
    cldnn_set_network_input(graph.network(), id, memory, &status);
    cldnn_release_memory(memory, nullptr);
    return status;
  };
  EXPECT_EQ(set("in", {1, 3, 2, 2}, CLDNN_FORMAT_YXFB), CLDNN_SUCCESS);
  EXPECT_EQ(set("in", {2, 3, 2, 2}, CLDNN_FORMAT_YXFB), CLDNN_ERROR);
  EXPECT_EQ(set("in", {1, 3, 2, 2}, CLDNN_FORMAT_BFYX), CLDNN_ERROR);
  EXPECT_EQ(set("in", {1, 3, 4, 1}, CLDNN_FORMAT_YXFB), CLDNN_ERROR);
  EXPECT_EQ(set("out", {1, 3, 2, 2}, CLDNN_FORMAT_YXFB), CLDNN_ERROR);
  EXPECT_EQ(set("nobody", {1, 3, 2, 2}, CLDNN_FORMAT_YXFB), CLDNN_ERROR);
  cldnn_set_network_input(graph.network(), "in", nullptr, &status);
  EXPECT_EQ(status, CLDNN_ERROR);
  cldnn_set_network_input(graph.network(), nullptr, nullptr, &status);
  EXPECT_EQ(status, CLDNN_ERROR);
}

TEST(SetInput, ReadsTheMemoryInPlaceAtEveryExecution) {
  Graph graph;
  graph.input("in", along_x({0, 0}));
  graph.add(rectified(graph, "out", "in", 1).header);
  graph.result("out");
  cldnn_memory memory = upload(graph.engine(), along_x({1, 2}), CLDNN_FORMAT_YXFB);
  cldnn_set_network_input(graph.network(), "in", memory, nullptr);
  EXPECT_EQ(graph.run_again("out").data, (std::vector<float>{1, 2}));
  static_cast<float*>(cldnn_lock_memory(memory, nullptr))[0] = 5;
  cldnn_unlock_memory(memory, nullptr);
  cldnn_release_memory(memory, nullptr);
  EXPECT_EQ(graph.run_again("out").data, (std::vector<float>{5, 2}));
}

TEST(SetInput, CopiesTheMemoryOfAnotherEngine) {
  cldnn_status status = CLDNN_SUCCESS;
  cldnn_memory memory = upload_elsewhere(along_x({3, -4}));
  Graph graph;
  graph.input("in", along_x({0, 0}));
  graph.add(rectified(graph, "out", "in", 1).header);
  graph.result("out");
  cldnn_set_network_input(graph.network(), "in", memory, &status);
  EXPECT_EQ(status, CLDNN_SUCCESS);
  cldnn_release_memory(memory, nullptr);
  EXPECT_EQ(graph.run_again("out").data, (std::vector<float>{3, -4}));
}

TEST(Data, OfAnotherEngineIsCopied) {
  Graph graph;
  graph.input("in", along_x({3, -4}));
  auto constant = graph.describe<cldnn_data_desc>(cldnn_data_type_id, "more", {});
  constant.memory = upload_elsewhere(along_x({10, 20}));
  graph.add(constant.header);
  cldnn_release_memory(constant.memory, nullptr);
  auto sum = graph.describe<cldnn_eltwise_desc>(cldnn_eltwise_type_id, "out", {"in"});
  sum.second_input = "more";
  graph.add(sum.header);
  EXPECT_EQ(graph.result("out").data, (std::vector<float>{13, 16}));
}

TEST(Data, ThatIsLockedIsRefusedWhenTheNetworkIsAllocated) {
  Graph graph;
  auto constant = graph.describe<cldnn_data_desc>(cldnn_data_type_id, "data", {});
  constant.memory = upload(graph.engine(), along_x({10, -20}), CLDNN_FORMAT_YXFB);
  graph.add(constant.header);
  graph.add(rectified(graph, "out", "data").header);
  cldnn_lock_memory(constant.memory, nullptr);
  EXPECT_EQ(graph.run(), Stage::kAllocate);
  EXPECT_EQ(graph.text(), "data: its memory is locked");
  cldnn_release_memory(constant.memory, nullptr);
}

TEST(Execute, WaitsForEventsOfAnotherEngine) {
  cldnn_status status = CLDNN_SUCCESS;
  cldnn_engine other = cldnn_create_engine(CLDNN_ENGINE_OPENCL, 0, nullptr, &status);
  {
    Graph first(other);
    first.input("in", along_x({1, -1}));
    first.add(rectified(first, "out", "in").header);
    first.result("out");
    const cldnn_network_output output = cldnn_get_network_output(first.network(), "out", &status);
    Graph graph;
    graph.input("in", along_x({1, -1}));
    graph.add(rectified(graph, "out", "in").header);
    graph.result("out");
    cldnn_event events[] = {output.event};
    cldnn_execute_network(graph.network(), events, 1, &status);
    EXPECT_EQ(status, CLDNN_SUCCESS) << cldnn_get_last_error_message();
    cldnn_release_event(output.event, nullptr);
    cldnn_release_memory(output.memory, nullptr);
  }
  cldnn_release_engine(other, nullptr);
}

TEST(Allocate, SeveralNetworksOfOneEngineAtOnceShareItsKernels) {
  cldnn_engine engine = cldnn_create_engine(CLDNN_ENGINE_OPENCL, 0, nullptr, nullptr);
  std::vector<std::thread> threads;
  for (int i = 0; i < 4; ++i) {
    threads.emplace_back([engine] {
      Graph graph(engine);
      graph.input("in", along_x({1, -1}));
      graph.add(rectified(graph, "out", "in").header);
      EXPECT_EQ(graph.result("out").data, (std::vector<float>{1, 0}));
    });
  }
  for (std::thread& thread : threads) thread.join();
  cldnn_release_engine(engine, nullptr);
}

TEST(Execute, RefusesALockedMemory) {
  Graph graph;
  graph.input("in", along_x({0, 0}));
  graph.add(rectified(graph, "out", "in", 1).header);
  graph.result("out");
  cldnn_status status = CLDNN_SUCCESS;
  const cldnn_network_output output = cldnn_get_network_output(graph.network(), "out", &status);
  cldnn_lock_memory(output.memory, &status);
  cldnn_execute_network(graph.network(), nullptr, 0, &status);
  EXPECT_EQ(status, CLDNN_ERROR);
  cldnn_unlock_memory(output.memory, &status);
  cldnn_execute_network(graph.network(), nullptr, 0, &status);
  EXPECT_EQ(status, CLDNN_SUCCESS);
  cldnn_release_event(output.event, nullptr);
  cldnn_release_memory(output.memory, nullptr);
}

TEST(Execute, TakesEventsToWaitForAndRefusesNullOnes) {
  Graph graph;
  graph.input("in", along_x({1, -1}));
  graph.add(rectified(graph, "out", "in").header);
  graph.result("out");
  cldnn_status status = CLDNN_SUCCESS;
  const cldnn_network_output output = cldnn_get_network_output(graph.network(), "out", &status);
  cldnn_event events[] = {output.event, nullptr};
  cldnn_execute_network(graph.network(), events, 1, &status);
  EXPECT_EQ(status, CLDNN_SUCCESS);
  cldnn_execute_network(graph.network(), events, 2, &status);
  EXPECT_EQ(status, CLDNN_ERROR);
  cldnn_execute_network(graph.network(), nullptr, 1, &status);
  EXPECT_EQ(status, CLDNN_ERROR);
  cldnn_release_event(output.event, nullptr);
  cldnn_release_memory(output.memory, nullptr);
}

}  // namespace
}  // namespace ravu::opencl::test
