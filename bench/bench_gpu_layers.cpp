// ravu_bench_gpu_layers [NETWORK]: the convolutions of well-known networks through the GPU
// provider, beside CLBlast's matrix product of the same size on the same OpenCL device and beside
// run mode 0 on the processor. Batch 1, GFLOP/s (two per multiply-add), medians of interleaved
// rounds.
//
// With PoCL as the OpenCL device all three share the same cores.
#define CL_TARGET_OPENCL_VERSION 120
#include <CL/cl.h>
#include <clblast_c.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "cldnn/cldnn.h"
#include "graph/Workspace.h"
#include "layers/ConvLayer.h"

namespace {

struct Case {
  const char* network;
  int size, channels, outputs, kernel, stride, groups;

  int pad() const { return kernel / 2; }
  int out_size() const { return (size + 2 * pad() - kernel) / stride + 1; }
  double operations() const {
    return 2.0 * out_size() * out_size() * outputs * kernel * kernel * channels / groups;
  }
};

const Case kCases[] = {
    {"resnet50", 224, 3, 64, 7, 2, 1},      {"resnet50", 56, 64, 64, 1, 1, 1},
    {"resnet50", 56, 64, 64, 3, 1, 1},      {"resnet50", 56, 64, 256, 1, 1, 1},
    {"resnet50", 56, 256, 64, 1, 1, 1},     {"resnet50", 56, 128, 128, 3, 2, 1},
    {"resnet50", 28, 128, 128, 3, 1, 1},    {"resnet50", 28, 128, 512, 1, 1, 1},
    {"resnet50", 28, 512, 128, 1, 1, 1},    {"resnet50", 56, 256, 512, 1, 2, 1},
    {"resnet50", 14, 256, 256, 3, 1, 1},    {"resnet50", 14, 256, 1024, 1, 1, 1},
    {"resnet50", 14, 1024, 256, 1, 1, 1},   {"resnet50", 7, 512, 512, 3, 1, 1},
    {"resnet50", 7, 512, 2048, 1, 1, 1},    {"resnet50", 7, 2048, 512, 1, 1, 1},
    {"vgg16", 224, 3, 64, 3, 1, 1},         {"vgg16", 224, 64, 64, 3, 1, 1},
    {"vgg16", 112, 64, 128, 3, 1, 1},       {"vgg16", 112, 128, 128, 3, 1, 1},
    {"vgg16", 56, 128, 256, 3, 1, 1},       {"vgg16", 56, 256, 256, 3, 1, 1},
    {"vgg16", 28, 256, 512, 3, 1, 1},       {"vgg16", 28, 512, 512, 3, 1, 1},
    {"vgg16", 14, 512, 512, 3, 1, 1},       {"mobilenet", 224, 3, 32, 3, 2, 1},
    {"mobilenet", 112, 32, 32, 3, 1, 32},   {"mobilenet", 112, 32, 64, 1, 1, 1},
    {"mobilenet", 112, 64, 64, 3, 2, 64},   {"mobilenet", 56, 64, 128, 1, 1, 1},
    {"mobilenet", 56, 128, 128, 3, 1, 128}, {"mobilenet", 28, 256, 256, 3, 1, 256},
    {"mobilenet", 28, 256, 256, 1, 1, 1},   {"mobilenet", 14, 512, 512, 3, 1, 512},
    {"mobilenet", 14, 512, 512, 1, 1, 1},   {"mobilenet", 7, 1024, 1024, 3, 1, 1024},
    {"mobilenet", 7, 1024, 1024, 1, 1, 1},
};

void require(bool good, const char* what) {
  if (good) return;
  std::fprintf(stderr, "%s failed: %s\n", what, cldnn_get_last_error_message());
  std::exit(1);
}

cldnn_tensor tensor(int b, int f, int x, int y) {
  return {1, 1, 2, {b, f, x, y, 1, 1, 1, 1}};
}

cldnn_layout layout(int b, int f, int x, int y) {
  cldnn_layout made{};
  made.data_type = CLDNN_FLOAT32;
  made.size = tensor(b, f, x, y);
  return made;
}

// One convolution as a network of the provider.
class Provider {
 public:
  Provider(cldnn_engine engine, const Case& c) {
    cldnn_status status = CLDNN_SUCCESS;
    cldnn_topology topology = cldnn_create_topology(&status);
    cldnn_input_layout_desc input{};
    input.header.type = cldnn_input_layout_type_id(&status);
    input.header.id = "in";
    input.layout = layout(1, c.channels, c.size, c.size);
    cldnn_add_primitive(topology, &input.header, &status);
    std::vector<std::string> names;
    for (int group = 0; group < c.groups; ++group) names.push_back("w" + std::to_string(group));
    std::vector<const char*> weights;
    for (const std::string& name : names) {
      cldnn_data_desc data{};
      data.header.type = cldnn_data_type_id(&status);
      data.header.id = name.c_str();
      data.memory = cldnn_allocate_memory(
          engine, layout(c.outputs / c.groups, c.channels / c.groups, c.kernel, c.kernel), &status);
      cldnn_add_primitive(topology, &data.header, &status);
      cldnn_release_memory(data.memory, nullptr);
      weights.push_back(name.c_str());
    }
    const char* inputs[] = {"in"};
    cldnn_convolution_desc conv{};
    conv.header.type = cldnn_convolution_type_id(&status);
    conv.header.id = "out";
    conv.header.input = {inputs, 1};
    conv.input_offset = tensor(0, 0, -c.pad(), -c.pad());
    conv.stride = tensor(1, 1, c.stride, c.stride);
    conv.dilation = tensor(1, 1, 1, 1);
    conv.split = static_cast<uint32_t>(c.groups);
    conv.weights = {weights.data(), weights.size()};
    cldnn_add_primitive(topology, &conv.header, &status);
    cldnn_program program = cldnn_build_program(engine, topology, nullptr, 0, &status);
    require(program != nullptr, "building the provider's program");
    network_ = cldnn_allocate_network(program, &status);
    require(network_ != nullptr, "allocating the provider's network");
    cldnn_memory memory = cldnn_allocate_memory(engine, input.layout, &status);
    cldnn_set_network_input(network_, "in", memory, &status);
    require(status == CLDNN_SUCCESS, "setting the provider's input");
    cldnn_release_memory(memory, nullptr);
    cldnn_release_program(program, nullptr);
    cldnn_release_topology(topology, nullptr);
  }
  Provider(const Provider&) = delete;
  Provider& operator=(const Provider&) = delete;
  ~Provider() { cldnn_release_network(network_, nullptr); }

  void run() {
    cldnn_status status = CLDNN_SUCCESS;
    cldnn_execute_network(network_, nullptr, 0, &status);
    const cldnn_network_output output = cldnn_get_network_output(network_, "out", &status);
    require(status == CLDNN_SUCCESS, "running the provider");
    cldnn_wait_for_event(output.event, &status);
    cldnn_release_event(output.event, nullptr);
    cldnn_release_memory(output.memory, nullptr);
  }

 private:
  cldnn_network network_ = nullptr;
};

// CLBlast's product of output pixels x outputs, without the gathering that a convolution would
// need.
class ClBlast {
 public:
  ClBlast() {
    cl_platform_id platform = nullptr;
    cl_device_id device = nullptr;
    require(clGetPlatformIDs(1, &platform, nullptr) == CL_SUCCESS, "finding OpenCL");
    require(clGetDeviceIDs(platform, CL_DEVICE_TYPE_ALL, 1, &device, nullptr) == CL_SUCCESS,
            "finding a device");
    context_ = clCreateContext(nullptr, 1, &device, nullptr, nullptr, nullptr);
    queue_ = clCreateCommandQueue(context_, device, 0, nullptr);
  }
  ClBlast(const ClBlast&) = delete;
  ClBlast& operator=(const ClBlast&) = delete;
  ~ClBlast() {
    clReleaseCommandQueue(queue_);
    clReleaseContext(context_);
  }

  void run(const Case& c) {
    const size_t m = static_cast<size_t>(c.out_size()) * c.out_size();
    const size_t n = static_cast<size_t>(c.outputs);
    const size_t k = static_cast<size_t>(c.kernel) * c.kernel * c.channels;
    prepare(m, n, k);
    require(CLBlastSgemm(CLBlastLayoutRowMajor, CLBlastTransposeNo, CLBlastTransposeNo, m, n, k, 1,
                         a_, 0, k, b_, 0, n, 0, c_, 0, n, &queue_, nullptr) == CLBlastSuccess,
            "CLBlast's product");
    clFinish(queue_);
  }

 private:
  void prepare(size_t m, size_t n, size_t k) {
    if (m == m_ && n == n_ && k == k_) return;
    for (cl_mem* mem : {&a_, &b_, &c_}) {
      if (*mem != nullptr) clReleaseMemObject(*mem);
    }
    m_ = m;
    n_ = n;
    k_ = k;
    a_ = buffer(m * k);
    b_ = buffer(k * n);
    c_ = buffer(m * n);
  }
  cl_mem buffer(size_t floats) {
    cl_mem mem =
        clCreateBuffer(context_, CL_MEM_READ_WRITE, floats * sizeof(float), nullptr, nullptr);
    const float zero = 0;
    clEnqueueFillBuffer(queue_, mem, &zero, sizeof(zero), 0, floats * sizeof(float), 0, nullptr,
                        nullptr);
    return mem;
  }

  cl_context context_ = nullptr;
  cl_command_queue queue_ = nullptr;
  cl_mem a_ = nullptr;
  cl_mem b_ = nullptr;
  cl_mem c_ = nullptr;
  size_t m_ = 0;
  size_t n_ = 0;
  size_t k_ = 0;
};

// The same convolution in run mode 0.
class Processor {
 public:
  explicit Processor(const Case& c) {
    layer_.kernel_w = layer_.kernel_h = c.kernel;
    layer_.stride_w = layer_.stride_h = c.stride;
    layer_.pad_w = layer_.pad_h = c.pad();
    layer_.groups = c.groups;
    layer_.output_channels = c.outputs / c.groups;
    workspace_.workers().set_threads(ravu::kernels::blas_threads());
    layer_.workspace = &workspace_;
    for (int group = 0; group < c.groups; ++group) {
      layer_.weights.push_back(
          blob(c.outputs / c.groups, c.kernel * c.kernel * c.channels / c.groups, 1, 1));
      layer_.biases.emplace_back();
    }
    input_ = blob(1, c.size, c.size, c.channels);
    output_ = blob(1, c.out_size(), c.out_size(), c.outputs);
    layer_.inputs = {input_.get()};
    layer_.outputs = {output_.get()};
    layer_.Setup(0, params_);
  }
  ~Processor() {
    layer_.inputs.clear();
    layer_.outputs.clear();
    layer_.owned_count = 0;
  }

  void run() { layer_.Forward(0); }

 private:
  static ravu::BlobPtr blob(int a, int b, int c, int d) {
    auto made = std::make_unique<ravu::Blob>();
    static_cast<ravu::Shape&>(*made) = *ravu::make_shape(a, b, c, d, ravu::kInterleaved);
    require(ravu::allocate(*made), "allocating");
    for (uint32_t i = 0; i < made->count; ++i) made->data[i] = static_cast<float>(i % 17) - 8;
    return made;
  }

  ravu::Workspace workspace_;
  std::vector<ravu::BlobPtr> params_;
  ravu::BlobPtr input_;
  ravu::BlobPtr output_;
  ravu::ConvLayer layer_;
};

double seconds(const std::function<void()>& work) {
  const auto start = std::chrono::steady_clock::now();
  work();
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

double median(std::vector<double> values) {
  std::nth_element(values.begin(), values.begin() + values.size() / 2, values.end());
  return values[values.size() / 2];
}

void measure(cldnn_engine engine, ClBlast& clblast, const Case& c) {
  constexpr int kRounds = 7;
  Provider provider(engine, c);
  Processor processor(c);
  const bool has_product = c.groups == 1;
  std::vector<double> times[3];
  for (int round = 0; round <= kRounds; ++round) {
    const double now[] = {seconds([&] { provider.run(); }),
                          has_product ? seconds([&] { clblast.run(c); }) : 0,
                          seconds([&] { processor.run(); })};
    if (round == 0) continue;  // compiles kernels, touches memory
    for (int i = 0; i < 3; ++i) times[i].push_back(now[i]);
  }
  const auto speed = [&](int i) { return c.operations() / median(times[i]) * 1e-9; };
  std::printf("%-9s %3dx%-3d %4d -> %4d  %dx%d/%d %s  %7.2f ms %7.1f  ", c.network, c.size, c.size,
              c.channels, c.outputs, c.kernel, c.kernel, c.stride,
              c.groups == 1 ? "     " : "depth", median(times[0]) * 1e3, speed(0));
  if (has_product) {
    std::printf("%7.1f  ", speed(1));
  } else {
    std::printf("      -  ");
  }
  std::printf("%7.1f  %5.2f\n", speed(2), speed(0) / speed(2));
  std::fflush(stdout);
}

}  // namespace

int main(int argc, char** argv) {
  cldnn_status status = CLDNN_SUCCESS;
  cldnn_engine engine = cldnn_create_engine(CLDNN_ENGINE_OPENCL, 0, nullptr, &status);
  require(engine != nullptr, "creating the engine");
  ClBlast clblast;
  std::printf(
      "network   input          features      kernel      provider GFLOP/s  CLBlast"
      "   mode 0  ratio\n");
  for (const Case& c : kCases) {
    if (argc > 1 && std::strcmp(argv[1], c.network) != 0) continue;
    measure(engine, clblast, c);
  }
  cldnn_release_engine(engine, nullptr);
  return 0;
}
