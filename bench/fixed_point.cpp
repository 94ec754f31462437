// ravu_bench_fixed_point [THREADS [ROUNDS [NETWORK...]]]: times run mode 3 against run mode 0 and
// against oneDNN's own single precision, layer by layer, on the layers of well-known networks with
// random weights; batch 1. The three take turns, so that all see the same machine; medians.
//
// With more than one thread, mode 0 has a team of its own beside OpenMP's here, and the two get in
// each other's way: whole networks in processes of their own (ravu bench) say more then.
//
// Mode 3 includes quantising the input. oneDNN gets its own layouts for nothing: reordering into
// them is not timed.
#include <cblas.h>
#include <omp.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <dnnl.hpp>
#include <functional>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "graph/Workspace.h"
#include "layers/ConvLayer.h"
#include "layers/FullyConnectLayer.h"

namespace {

using namespace ravu;  // NOLINT: a program of one file

// A square convolution; a size of 1 with kernel 1 is a fully connected layer.
struct Row {
  const char* network;
  int repeats;  // how often the network has it
  int size, channels, outputs, kernel, stride, pad, groups;
};

const std::vector<Row> kRows = {
    {"resnet50", 1, 224, 3, 64, 7, 2, 3, 1},        {"resnet50", 1, 56, 64, 64, 1, 1, 0, 1},
    {"resnet50", 2, 56, 256, 64, 1, 1, 0, 1},       {"resnet50", 3, 56, 64, 64, 3, 1, 1, 1},
    {"resnet50", 4, 56, 64, 256, 1, 1, 0, 1},       {"resnet50", 1, 56, 256, 128, 1, 2, 0, 1},
    {"resnet50", 1, 56, 256, 512, 1, 2, 0, 1},      {"resnet50", 3, 28, 512, 128, 1, 1, 0, 1},
    {"resnet50", 4, 28, 128, 128, 3, 1, 1, 1},      {"resnet50", 4, 28, 128, 512, 1, 1, 0, 1},
    {"resnet50", 1, 28, 512, 256, 1, 2, 0, 1},      {"resnet50", 1, 28, 512, 1024, 1, 2, 0, 1},
    {"resnet50", 5, 14, 1024, 256, 1, 1, 0, 1},     {"resnet50", 6, 14, 256, 256, 3, 1, 1, 1},
    {"resnet50", 6, 14, 256, 1024, 1, 1, 0, 1},     {"resnet50", 1, 14, 1024, 512, 1, 2, 0, 1},
    {"resnet50", 1, 14, 1024, 2048, 1, 2, 0, 1},    {"resnet50", 2, 7, 2048, 512, 1, 1, 0, 1},
    {"resnet50", 3, 7, 512, 512, 3, 1, 1, 1},       {"resnet50", 3, 7, 512, 2048, 1, 1, 0, 1},
    {"resnet50", 1, 1, 2048, 1000, 1, 1, 0, 1},     {"vgg16", 1, 224, 3, 64, 3, 1, 1, 1},
    {"vgg16", 1, 224, 64, 64, 3, 1, 1, 1},          {"vgg16", 1, 112, 64, 128, 3, 1, 1, 1},
    {"vgg16", 1, 112, 128, 128, 3, 1, 1, 1},        {"vgg16", 1, 56, 128, 256, 3, 1, 1, 1},
    {"vgg16", 2, 56, 256, 256, 3, 1, 1, 1},         {"vgg16", 1, 28, 256, 512, 3, 1, 1, 1},
    {"vgg16", 2, 28, 512, 512, 3, 1, 1, 1},         {"vgg16", 3, 14, 512, 512, 3, 1, 1, 1},
    {"vgg16", 1, 1, 25088, 4096, 1, 1, 0, 1},       {"vgg16", 1, 1, 4096, 4096, 1, 1, 0, 1},
    {"vgg16", 1, 1, 4096, 1000, 1, 1, 0, 1},        {"mobilenet", 1, 224, 3, 32, 3, 2, 1, 1},
    {"mobilenet", 1, 112, 32, 32, 3, 1, 1, 32},     {"mobilenet", 1, 112, 32, 64, 1, 1, 0, 1},
    {"mobilenet", 1, 112, 64, 64, 3, 2, 1, 64},     {"mobilenet", 1, 56, 64, 128, 1, 1, 0, 1},
    {"mobilenet", 1, 56, 128, 128, 3, 1, 1, 128},   {"mobilenet", 1, 56, 128, 128, 1, 1, 0, 1},
    {"mobilenet", 1, 56, 128, 128, 3, 2, 1, 128},   {"mobilenet", 1, 28, 128, 256, 1, 1, 0, 1},
    {"mobilenet", 1, 28, 256, 256, 3, 1, 1, 256},   {"mobilenet", 1, 28, 256, 256, 1, 1, 0, 1},
    {"mobilenet", 1, 28, 256, 256, 3, 2, 1, 256},   {"mobilenet", 1, 14, 256, 512, 1, 1, 0, 1},
    {"mobilenet", 5, 14, 512, 512, 3, 1, 1, 512},   {"mobilenet", 5, 14, 512, 512, 1, 1, 0, 1},
    {"mobilenet", 1, 14, 512, 512, 3, 2, 1, 512},   {"mobilenet", 1, 7, 512, 1024, 1, 1, 0, 1},
    {"mobilenet", 1, 7, 1024, 1024, 3, 1, 1, 1024}, {"mobilenet", 1, 7, 1024, 1024, 1, 1, 0, 1},
    {"mobilenet", 1, 1, 1024, 1000, 1, 1, 0, 1},
};

// A Blob of random values: between least and 1, not even in distribution, as trained ones are.
BlobPtr random_blob(std::int64_t d0, std::int64_t d1, std::int64_t d2, std::int64_t d3,
                    float least) {
  auto blob = std::make_unique<Blob>();
  static_cast<Shape&>(*blob) = make_shape(d0, d1, d2, d3, kInterleaved).value();
  allocate(*blob);
  std::mt19937 random(1);
  for (std::uint32_t i = 0; i < blob->count; ++i) {
    const float x = static_cast<float>(random() >> 8) / 8388608.0F - 1.0F;
    blob->data[i] = std::max(x * x * x, least);
  }
  return blob;
}

// One of the engine's layers between two Blobs.
class EngineLayer {
 public:
  EngineLayer(const Row& r, std::uint32_t mode,
              const std::shared_ptr<const FixedPointLibrary>& library)
      : mode_(mode) {
    workspace_.fixed_point = library;
    workspace_.workers().set_threads(kernels::blas_threads());
    if (mode == 3) workspace_.workers().set_team(library->run_tasks);
    input_ = random_blob(1, r.size, r.size, r.channels, r.channels == 3 ? -1.0F : 0.0F);
    if (r.size == 1) {
      auto product = std::make_unique<FullyConnectLayer>();
      product->weights = random_blob(r.channels, r.outputs, 1, 1, -1);
      product->bias = random_blob(1, 1, 1, r.outputs, -1);
      product->has_bias = true;
      layer_ = std::move(product);
    } else {
      layer_ = convolution(r);
    }
    const int side = (r.size + 2 * r.pad - r.kernel) / r.stride + 1;
    output_ = random_blob(1, side, side, r.outputs, 0);
    layer_->inputs = {input_.get()};
    layer_->outputs = {output_.get()};
    layer_->workspace = &workspace_;
    std::vector<BlobPtr> params;
    layer_->Setup(static_cast<std::int32_t>(mode), params);
  }

  void run() { layer_->Forward(mode_); }

 private:
  static std::unique_ptr<BaseLayer> convolution(const Row& r) {
    auto conv = std::make_unique<ConvLayer>();
    conv->groups = r.groups;
    conv->output_channels = r.outputs / r.groups;
    conv->kernel_h = conv->kernel_w = r.kernel;
    conv->stride_h = conv->stride_w = r.stride;
    conv->pad_h = conv->pad_w = r.pad;
    conv->has_bias = true;
    for (int g = 0; g < r.groups; ++g) {
      conv->weights.push_back(
          random_blob(r.outputs / r.groups, r.kernel, r.kernel, r.channels / r.groups, -1));
      conv->biases.push_back(random_blob(1, 1, 1, r.outputs / r.groups, -1));
    }
    return conv;
  }

  std::uint32_t mode_;
  BlobPtr input_, output_;
  Workspace workspace_;
  std::unique_ptr<BaseLayer> layer_;
};

// oneDNN in single precision, in the layouts that it likes best.
class Peer {
 public:
  explicit Peer(const Row& r) {
    using dnnl::memory;
    const auto any = memory::format_tag::any;
    const auto f32 = memory::data_type::f32;
    const int side = (r.size + 2 * r.pad - r.kernel) / r.stride + 1;
    const memory::dims kernel = r.groups == 1
                                    ? memory::dims{r.outputs, r.channels, r.kernel, r.kernel}
                                    : memory::dims{r.groups, r.outputs / r.groups,
                                                   r.channels / r.groups, r.kernel, r.kernel};
    const dnnl::convolution_forward::primitive_desc description(
        {dnnl::prop_kind::forward_inference,
         dnnl::algorithm::convolution_direct,
         memory::desc({1, r.channels, r.size, r.size}, f32, any),
         memory::desc(kernel, f32, any),
         memory::desc({r.outputs}, f32, any),
         memory::desc({1, r.outputs, side, side}, f32, any),
         {r.stride, r.stride},
         {r.pad, r.pad},
         {r.pad, r.pad}},
        engine_);
    primitive_ = dnnl::convolution_forward(description);
    arguments_ = {{DNNL_ARG_SRC, filled(description.src_desc())},
                  {DNNL_ARG_WEIGHTS, filled(description.weights_desc())},
                  {DNNL_ARG_BIAS, filled(description.bias_desc())},
                  {DNNL_ARG_DST, filled(description.dst_desc())}};
  }

  void run() {
    primitive_.execute(stream_, arguments_);
    stream_.wait();
  }

 private:
  dnnl::memory filled(const dnnl::memory::desc& desc) {
    dnnl::memory memory(desc, engine_);
    auto* values = static_cast<float*>(memory.get_data_handle());
    std::fill_n(values, desc.get_size() / sizeof(float), 0.5F);
    return memory;
  }

  dnnl::engine engine_{dnnl::engine::kind::cpu, 0};
  dnnl::stream stream_{engine_};
  dnnl::primitive primitive_;
  std::unordered_map<int, dnnl::memory> arguments_;
};

double median(std::vector<double> times) {
  std::sort(times.begin(), times.end());
  return times[times.size() / 2];
}

struct Times {
  double mode_0, mode_3, peer;  // milliseconds
};

Times measure(const Row& row, int rounds, const std::shared_ptr<const FixedPointLibrary>& library) {
  EngineLayer floats(row, 0, library);
  EngineLayer integers(row, 3, library);
  Peer peer(row);
  const std::vector<std::function<void()>> runs = {[&] { floats.run(); }, [&] { integers.run(); },
                                                   [&] { peer.run(); }};
  std::vector<std::vector<double>> times(runs.size());
  for (int round = -1; round < rounds; ++round) {
    for (std::size_t i = 0; i < runs.size(); ++i) {
      runs[i]();  // brings its own data back into the caches
      const auto start = std::chrono::steady_clock::now();
      runs[i]();
      const std::chrono::duration<double, std::milli> took =
          std::chrono::steady_clock::now() - start;
      if (round >= 0) times[i].push_back(took.count());
    }
  }
  return {median(times[0]), median(times[1]), median(times[2])};
}

void print(const char* name, const Times& t) {
  std::printf("%-34s %8.3f %8.3f %8.3f %9.2f %9.2f\n", name, t.mode_0, t.mode_3, t.peer,
              t.mode_0 / t.mode_3, t.peer / t.mode_3);
  std::fflush(stdout);
}

std::string name_of(const Row& r) {
  char text[80];
  std::snprintf(text, sizeof text, "%d x %d^2 x %d > %d k%d s%d%s", r.repeats, r.size, r.channels,
                r.outputs, r.kernel, r.stride, r.groups > 1 ? " depthwise" : "");
  return text;
}

}  // namespace

int main(int argc, char** argv) {
  const int threads = argc > 1 ? std::atoi(argv[1]) : 1;
  const int rounds = argc > 2 ? std::atoi(argv[2]) : 7;
  const std::vector<std::string> wanted(argv + std::min(argc, 3), argv + argc);
  if (threads < 1 || rounds < 1) {
    std::fputs("usage: ravu_bench_fixed_point [THREADS [ROUNDS [NETWORK...]]]\n", stderr);
    return 2;
  }
  openblas_set_num_threads(threads);
  omp_set_num_threads(threads);
  const auto library = std::make_shared<const FixedPointLibrary>(load_fixed_point_library());
  if (!*library) {
    std::fprintf(stderr, "ravu_bench_fixed_point: %s\n", library->problem.c_str());
    return 1;
  }
  std::printf("%d threads, medians of %d rounds, ms; ratios to mode 3\n", threads, rounds);
  std::printf("%-34s %8s %8s %8s %9s %9s\n", "layer", "mode 0", "mode 3", "oneDNN", "mode 0",
              "oneDNN");
  for (const char* network : {"resnet50", "vgg16", "mobilenet"}) {
    if (!wanted.empty() && std::find(wanted.begin(), wanted.end(), network) == wanted.end()) {
      continue;
    }
    Times sum{};
    for (const Row& row : kRows) {
      if (std::string(row.network) != network) continue;
      const Times t = measure(row, rounds, library);
      print(name_of(row).c_str(), t);
      sum.mode_0 += row.repeats * t.mode_0;
      sum.mode_3 += row.repeats * t.mode_3;
      sum.peer += row.repeats * t.peer;
    }
    print((std::string(network) + ", all of these layers").c_str(), sum);
  }
  return 0;
}
