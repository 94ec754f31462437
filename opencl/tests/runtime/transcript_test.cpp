// What an execution asks of OpenCL: one kernel per primitive, none for what runs along with another
// or shares memory, and no waiting. The functions below stand in for OpenCL's and count.
#define CL_TARGET_OPENCL_VERSION 120
#include <CL/cl.h>
#include <dlfcn.h>
#include <gtest/gtest.h>

#include <atomic>
#include <map>
#include <mutex>
#include <string>

#include "support/Graph.h"
#include "support/StandIn.h"

namespace {

std::mutex calls_mutex;
std::map<std::string, int> calls;
std::atomic<bool> writing_fails{false};

void count_call(const char* name) {
  const std::lock_guard lock(calls_mutex);
  ++calls[name];
}

}  // namespace

// Counts, then calls the real one.
#define COUNTED(type, name, parameters, ...)                                                 \
  extern "C" __attribute__((visibility("default"))) type name parameters {                   \
    count_call(#name);                                                                       \
    static auto* const real = reinterpret_cast<type(*) parameters>(dlsym(RTLD_NEXT, #name)); \
    return real(__VA_ARGS__);                                                                \
  }

COUNTED(cl_int, clFinish, (cl_command_queue queue), queue)
COUNTED(cl_int, clFlush, (cl_command_queue queue), queue)
COUNTED(cl_int, clWaitForEvents, (cl_uint count, const cl_event* events), count, events)
COUNTED(cl_int, clEnqueueReadBuffer,
        (cl_command_queue queue, cl_mem mem, cl_bool blocking, size_t offset, size_t size,
         void* data, cl_uint count, const cl_event* events, cl_event* event),
        queue, mem, blocking, offset, size, data, count, events, event)
COUNTED(cl_int, clEnqueueCopyBuffer,
        (cl_command_queue queue, cl_mem from, cl_mem to, size_t from_offset, size_t to_offset,
         size_t size, cl_uint count, const cl_event* events, cl_event* event),
        queue, from, to, from_offset, to_offset, size, count, events, event)
COUNTED(cl_int, clEnqueueFillBuffer,
        (cl_command_queue queue, cl_mem mem, const void* pattern, size_t pattern_size,
         size_t offset, size_t size, cl_uint count, const cl_event* events, cl_event* event),
        queue, mem, pattern, pattern_size, offset, size, count, events, event)
COUNTED(void*, clEnqueueMapBuffer,
        (cl_command_queue queue, cl_mem mem, cl_bool blocking, cl_map_flags flags, size_t offset,
         size_t size, cl_uint count, const cl_event* events, cl_event* event, cl_int* code),
        queue, mem, blocking, flags, offset, size, count, events, event, code)
COUNTED(cl_int, clEnqueueUnmapMemObject,
        (cl_command_queue queue, cl_mem mem, void* address, cl_uint count, const cl_event* events,
         cl_event* event),
        queue, mem, address, count, events, event)
COUNTED(cl_int, clBuildProgram,
        (cl_program program, cl_uint count, const cl_device_id* devices, const char* options,
         void(CL_CALLBACK* notify)(cl_program, void*), void* data),
        program, count, devices, options, notify, data)
COUNTED(cl_int, clSetKernelArg, (cl_kernel kernel, cl_uint index, size_t size, const void* value),
        kernel, index, size, value)

COUNTED(cl_context, clCreateContext,
        (const cl_context_properties* properties, cl_uint count, const cl_device_id* devices,
         void(CL_CALLBACK* notify)(const char*, const void*, size_t, void*), void* data,
         cl_int* code),
        properties, count, devices, notify, data, code)
COUNTED(cl_int, clReleaseContext, (cl_context context), context)
COUNTED(cl_command_queue, clCreateCommandQueue,
        (cl_context context, cl_device_id device, cl_command_queue_properties properties,
         cl_int* code),
        context, device, properties, code)
COUNTED(cl_int, clReleaseCommandQueue, (cl_command_queue queue), queue)
COUNTED(cl_mem, clCreateBuffer,
        (cl_context context, cl_mem_flags flags, size_t size, void* data, cl_int* code), context,
        flags, size, data, code)
COUNTED(cl_int, clReleaseMemObject, (cl_mem mem), mem)
COUNTED(cl_program, clCreateProgramWithSource,
        (cl_context context, cl_uint count, const char** texts, const size_t* sizes, cl_int* code),
        context, count, texts, sizes, code)
COUNTED(cl_program, clCreateProgramWithBinary,
        (cl_context context, cl_uint count, const cl_device_id* devices, const size_t* sizes,
         const unsigned char** binaries, cl_int* statuses, cl_int* code),
        context, count, devices, sizes, binaries, statuses, code)
COUNTED(cl_int, clReleaseProgram, (cl_program program), program)
COUNTED(cl_int, clReleaseKernel, (cl_kernel kernel), kernel)
COUNTED(cl_int, clRetainEvent, (cl_event event), event)
COUNTED(cl_int, clReleaseEvent, (cl_event event), event)

// Fails where a test wants it to.
extern "C" __attribute__((visibility("default"))) cl_int clEnqueueWriteBuffer(
    cl_command_queue queue, cl_mem mem, cl_bool blocking, size_t offset, size_t size,
    const void* data, cl_uint count, const cl_event* events, cl_event* event) {
  count_call("clEnqueueWriteBuffer");
  if (writing_fails) return CL_OUT_OF_RESOURCES;
  static auto* const real =
      reinterpret_cast<decltype(&clEnqueueWriteBuffer)>(dlsym(RTLD_NEXT, __func__));
  return real(queue, mem, blocking, offset, size, data, count, events, event);
}

// Kernels are counted by name as well.
extern "C" __attribute__((visibility("default"))) cl_kernel clCreateKernel(cl_program program,
                                                                           const char* name,
                                                                           cl_int* code) {
  count_call("clCreateKernel");
  count_call(name);
  static auto* const real = reinterpret_cast<decltype(&clCreateKernel)>(dlsym(RTLD_NEXT, __func__));
  return real(program, name, code);
}

// A kernel's event is an object too.
extern "C" __attribute__((visibility("default"))) cl_int clEnqueueNDRangeKernel(
    cl_command_queue queue, cl_kernel kernel, cl_uint dims, const size_t* offset,
    const size_t* global, const size_t* local, cl_uint count, const cl_event* events,
    cl_event* event) {
  count_call("clEnqueueNDRangeKernel");
  if (event != nullptr) count_call("events of kernels");
  const size_t limit = ravu::opencl::test::group_limit;
  if (limit != 0 && local[0] * local[1] * local[2] > limit) return CL_INVALID_WORK_GROUP_SIZE;
  static auto* const real =
      reinterpret_cast<decltype(&clEnqueueNDRangeKernel)>(dlsym(RTLD_NEXT, __func__));
  return real(queue, kernel, dims, offset, global, local, count, events, event);
}

namespace ravu::opencl::test {
namespace {

using Calls = std::map<std::string, int>;

Calls calls_so_far() {
  const std::lock_guard lock(calls_mutex);
  return calls;
}

void forget_calls() {
  const std::lock_guard lock(calls_mutex);
  calls.clear();
}

// The calls that ask the device for something: no events, which are released as new ones come.
Calls during_execution(Graph& graph) {
  EXPECT_EQ(graph.run(), Stage::kDone) << graph.text();
  forget_calls();
  cldnn_status status = CLDNN_SUCCESS;
  cldnn_execute_network(graph.network(), nullptr, 0, &status);
  EXPECT_EQ(status, CLDNN_SUCCESS) << cldnn_get_last_error_message();
  Calls during = calls_so_far();
  EXPECT_LE(during["events of kernels"], 1) << "only the last kernel's is asked for";
  during.erase("clReleaseEvent");
  during.erase("events of kernels");
  return during;
}

void add_convolution(Graph& graph, const char* id, const char* from) {
  auto conv = graph.describe<cldnn_convolution_desc>(cldnn_convolution_type_id, id, {from});
  conv.stride = conv.dilation = tensor(1, 1, 1, 1);
  conv.split = 1;
  conv.weights = graph.ids({"w"});
  graph.add(conv.header);
}

void add_pooling(Graph& graph, const char* id, const char* from) {
  auto pool = graph.describe<cldnn_pooling_desc>(cldnn_pooling_type_id, id, {from});
  pool.stride = pool.size = tensor(1, 1, 1, 1);
  graph.add(pool.header);
}

TEST(Transcript, OneKernelPerPrimitiveAndNoWaiting) {
  Graph graph;
  graph.input("in", random_values({2, 8, 4, 4}, 1));
  graph.data("w", random_values({8, 8, 1, 1}, 2));
  add_convolution(graph, "conv1", "in");
  add_pooling(graph, "pool1", "conv1");
  add_convolution(graph, "conv2", "pool1");
  auto concat = graph.describe<cldnn_concatenation_desc>(cldnn_concatenation_type_id, "concat",
                                                         {"pool1", "conv2", "in"});
  concat.axis = CLDNN_CONCATENATION_F;
  graph.add(concat.header);
  auto flat = graph.describe<cldnn_reshape_desc>(cldnn_reshape_type_id, "flat", {"concat"});
  flat.output_shape = tensor(2, 384, 1, 1);
  graph.add(flat.header);
  auto softmax = graph.describe<cldnn_softmax_desc>(cldnn_softmax_type_id, "end", {"flat"});
  softmax.dimension = CLDNN_SOFTMAX_FYX;
  graph.add(softmax.header);
  // conv1, pool1, conv2, concat, end; the reshape is a view.
  EXPECT_EQ(during_execution(graph), (Calls{{"clEnqueueNDRangeKernel", 5}, {"clFlush", 1}}));
}

TEST(Transcript, WhatRunsAlongWithAProductHasNoKernelOfItsOwn) {
  Graph graph;
  graph.input("in", random_values({1, 8, 4, 4}, 1));
  graph.data("w", random_values({8, 8, 1, 1}, 2));
  graph.data("scales", random_values({1, 8, 1, 1}, 2));
  add_convolution(graph, "conv", "in");
  auto scale = graph.describe<cldnn_scale_desc>(cldnn_scale_type_id, "scale", {"conv"});
  scale.scale_input = "scales";
  scale.bias = "";
  graph.add(scale.header);
  auto sum = graph.describe<cldnn_eltwise_desc>(cldnn_eltwise_type_id, "sum", {"in"});
  sum.second_input = "scale";
  graph.add(sum.header);
  auto relu = graph.describe<cldnn_activation_desc>(cldnn_activation_type_id, "end", {"sum"});
  relu.slope_input = "";
  graph.add(relu.header);
  EXPECT_EQ(during_execution(graph), (Calls{{"clEnqueueNDRangeKernel", 1}, {"clFlush", 1}}));
}

// A convolution with a result of 8 x 8 pixels and a maximum of each of them.
Values small_network(cldnn_engine engine) {
  Graph graph(engine);
  graph.input("in", random_values({1, 8, 8, 8}, 1));
  graph.data("w", random_values({8, 8, 1, 1}, 2));
  add_convolution(graph, "conv", "in");
  add_pooling(graph, "out", "conv");
  return graph.result("out");
}

TEST(Transcript, ADeviceOfSmallWorkGroupsComputesTheSameWithoutTiles) {
  const Values expected = small_network(shared_engine("product_local"));
  for (const size_t limit : {128, 8, 1}) {
    forget_calls();
    group_limit = limit;
    const cldnn_engine_configuration configuration = {0, 0, "", "product_local"};
    cldnn_status status = CLDNN_SUCCESS;
    cldnn_engine engine = cldnn_create_engine(CLDNN_ENGINE_OPENCL, 0, &configuration, &status);
    expect_near(small_network(engine), expected);
    cldnn_release_engine(engine, &status);
    group_limit = 0;
    EXPECT_EQ(calls_so_far().count("product_local"), 0u);
    EXPECT_EQ(calls_so_far().count("product_registers"), 1u);
  }
}

// A driver that runs short of registers takes less for one kernel than the device has.
TEST(Transcript, AKernelThatTakesSmallWorkGroupsOnlyIsReplacedOrRefusedAtAllocation) {
  cldnn_engine engine = shared_engine("product_local");
  const Values expected = small_network(engine);
  group_limit = 32;
  forget_calls();
  expect_near(small_network(engine), expected);
  EXPECT_EQ(calls_so_far().count("product_registers"), 1u);
  Graph graph(engine);
  graph.input("in", random_values({1, 8, 4, 4}, 1));
  graph.data("scale", along_x({1}));
  auto norm = graph.describe<cldnn_normalize_desc>(cldnn_normalize_type_id, "out", {"in"});
  norm.across_spatial = 1;
  norm.scale_input = "scale";
  graph.add(norm.header);
  EXPECT_EQ(graph.run(), Stage::kAllocate);
  group_limit = 0;
  EXPECT_EQ(graph.text().rfind("normalize_image needs work-groups of 64 items, ", 0), 0u);
}

TEST(Transcript, TilesAreForProductsOfAtLeastSixteenPixels) {
  cldnn_engine engine = shared_engine("product_local");
  for (const int width : {15, 16}) {
    forget_calls();
    Graph graph(engine);
    graph.input("in", random_values({1, 8, 1, width}, 1));
    graph.data("w", random_values({8, 8, 1, 1}, 2));
    add_convolution(graph, "out", "in");
    EXPECT_EQ(graph.run(), Stage::kDone) << graph.text();
    EXPECT_EQ(calls_so_far().count("product_local"), width == 16 ? 1u : 0u);
    EXPECT_EQ(calls_so_far().count("product_registers"), width == 16 ? 0u : 1u);
  }
}

TEST(Transcript, WhatWasNeededToPackWeightsAloneIsReleasedWhenTheNetworkIsAllocated) {
  Graph graph;
  graph.input("in", random_values({1, 8, 4, 4}, 1));
  graph.data("w", random_values({9, 8, 1, 1}, 2));
  add_convolution(graph, "out", "in");
  forget_calls();
  EXPECT_EQ(graph.run(), Stage::kDone) << graph.text();
  // Factors, biases and slopes: the latter two are there in padded form as well.
  EXPECT_EQ(calls_so_far()["clReleaseMemObject"], 3);
}

TEST(Transcript, EveryObjectOfOpenClIsReleased) {
  forget_calls();
  cldnn_status status = CLDNN_SUCCESS;
  cldnn_engine engine = cldnn_create_engine(CLDNN_ENGINE_OPENCL, 0, nullptr, &status);
  {
    Graph graph(engine);
    graph.input("in", random_values({1, 8, 4, 4}, 1));
    graph.data("w", random_values({8, 8, 1, 1}, 2));
    add_convolution(graph, "conv", "in");
    add_pooling(graph, "out", "conv");
    graph.result("out");
    graph.run_again("out");
    Graph refused(engine);
    refused.input("in", random_values({1, 8, 4, 4}, 1));
    refused.data("w", random_values({8, 9, 1, 1}, 2));
    add_pooling(refused, "pool", "in");
    add_convolution(refused, "conv", "pool");
    EXPECT_EQ(refused.run(), Stage::kAllocate);
  }
  cldnn_release_engine(engine, &status);
  Calls now = calls_so_far();
  EXPECT_GT(now["clCreateBuffer"], 5);
  EXPECT_EQ(now["clCreateContext"], 1);
  EXPECT_EQ(now["clReleaseContext"], 1);
  EXPECT_EQ(now["clReleaseCommandQueue"], now["clCreateCommandQueue"]);
  EXPECT_EQ(now["clReleaseMemObject"], now["clCreateBuffer"]);
  EXPECT_EQ(now["clReleaseProgram"],
            now["clCreateProgramWithSource"] + now["clCreateProgramWithBinary"]);
  EXPECT_EQ(now["clReleaseKernel"], now["clCreateKernel"]);
  EXPECT_EQ(now["clReleaseEvent"], now["events of kernels"] + now["clRetainEvent"]);
}

// What ravu does for each image.
TEST(Transcript, TheFirstExecutionAfterAnInputWasSetDoesNotWaitEither) {
  Graph graph;
  graph.input("in", random_values({1, 8, 4, 4}, 1));
  add_pooling(graph, "pool", "in");
  add_pooling(graph, "out", "pool");
  forget_calls();
  EXPECT_EQ(graph.run(), Stage::kDone) << graph.text();
  const int both_kernels = calls_so_far()["clSetKernelArg"];
  forget_calls();
  graph.run_again("out");
  EXPECT_EQ(calls_so_far().count("clSetKernelArg"), 0u);
  cldnn_memory other = upload(graph.engine(), random_values({1, 8, 4, 4}, 2), CLDNN_FORMAT_YXFB);
  cldnn_status status = CLDNN_SUCCESS;
  cldnn_set_network_input(graph.network(), "in", other, &status);
  forget_calls();
  cldnn_execute_network(graph.network(), nullptr, 0, &status);
  EXPECT_EQ(status, CLDNN_SUCCESS);
  Calls during = calls_so_far();
  EXPECT_GT(both_kernels, 0);
  EXPECT_EQ(2 * during["clSetKernelArg"], both_kernels) << "the first reads the input, no other";
  for (const char* allowed :
       {"clSetKernelArg", "clReleaseEvent", "events of kernels", "clReleaseMemObject"}) {
    during.erase(allowed);
  }
  EXPECT_EQ(during, (Calls{{"clEnqueueNDRangeKernel", 2}, {"clFlush", 1}}));
  cldnn_release_memory(other, nullptr);
}

TEST(Transcript, AMemoryOfAnotherEngineIsUnlockedWhenItCannotBeCopied) {
  cldnn_status status = CLDNN_SUCCESS;
  cldnn_memory memory = upload_elsewhere(along_x({3, -4}));
  Graph graph;
  graph.input("in", along_x({1, 2}));
  add_pooling(graph, "out", "in");
  EXPECT_EQ(graph.run(), Stage::kDone) << graph.text();
  writing_fails = true;
  cldnn_set_network_input(graph.network(), "in", memory, &status);
  writing_fails = false;
  EXPECT_EQ(status, CLDNN_OUT_OF_RESOURCES);
  cldnn_unlock_memory(memory, &status);
  EXPECT_EQ(status, CLDNN_ERROR) << "it was locked still";
  cldnn_release_memory(memory, nullptr);
}

TEST(Transcript, AnEngineThatGoesWaitsForWhatItHasStarted) {
  cldnn_status status = CLDNN_SUCCESS;
  cldnn_engine engine = cldnn_create_engine(CLDNN_ENGINE_OPENCL, 0, nullptr, &status);
  {
    Graph graph(engine);
    graph.input("in", random_values({1, 8, 4, 4}, 1));
    add_pooling(graph, "out", "in");
    EXPECT_EQ(graph.run(), Stage::kDone) << graph.text();
  }
  forget_calls();
  cldnn_release_engine(engine, &status);
  Calls now = calls_so_far();
  EXPECT_EQ(now["clFinish"], 1);
  EXPECT_EQ(now["clReleaseCommandQueue"], 1);
}

TEST(Transcript, PriorBoxesAreComputedAtAllocation) {
  Graph graph;
  graph.input("in", zeros({1, 8, 4, 4}));
  const float one[] = {1};
  auto priors = graph.describe<cldnn_prior_box_desc>(cldnn_prior_box_type_id, "out", {"in"});
  priors.image_size = tensor(1, 1, 10, 10);
  priors.min_sizes = priors.aspect_ratios = priors.variances = {one, 1};
  graph.add(priors.header);
  EXPECT_EQ(during_execution(graph), (Calls{{"clFlush", 1}}));
}

TEST(Transcript, AllKernelsAreCompiledWhenTheNetworkIsAllocated) {
  Graph graph;
  graph.input("in", random_values({1, 8, 4, 4}, 1));
  add_pooling(graph, "out", "in");
  const Calls during = during_execution(graph);
  EXPECT_EQ(during.count("clBuildProgram"), 0u);
  EXPECT_EQ(during.count("clSetKernelArg"), 0u);
}

TEST(Transcript, DetectionOutputWaitsForItsThreeInputsAndNothingElse) {
  Graph graph;
  graph.input("location", zeros({1, 4, 1, 1}), CLDNN_FORMAT_BFYX);
  graph.input("confidence", zeros({1, 2, 1, 1}), CLDNN_FORMAT_BFYX);
  graph.input("prior", zeros({1, 2, 4, 1}), CLDNN_FORMAT_BFYX);
  auto desc = graph.describe<cldnn_detection_output_desc>(cldnn_detection_output_type_id, "out",
                                                          {"location", "confidence", "prior"});
  desc.class_count = 2;
  desc.keep_top_k = 1;
  desc.share_location = 1;
  graph.add(desc.header);
  EXPECT_EQ(during_execution(graph),
            (Calls{{"clEnqueueReadBuffer", 3}, {"clEnqueueWriteBuffer", 1}, {"clFlush", 1}}));
}

}  // namespace
}  // namespace ravu::opencl::test
