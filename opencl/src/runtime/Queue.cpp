// Kernel files are programs of their own, compiled when a network first needs one: a network pays
// for the kernels it has, and each is cached by itself.
#include "runtime/Queue.h"

#include <limits>

#include "runtime/Error.h"
#include "runtime/kernel_sources.h"

namespace ravu::opencl {

namespace {

// Room for a launch's rounding up, so that an index computed behind the end is still an int.
constexpr int64_t kMostElements = std::numeric_limits<cl_int>::max() - (1 << 20);

// Processors want whole vector registers, GPUs neighbouring work items on neighbouring memory.
int lanes_of(const Device& device) {
  if (!device.is_processor()) return 4;
  return device.native_floats >= 16 ? 16 : 8;
}

std::string compile_options(const Device& device) {
  return "-cl-std=CL1.2 -DLANES=" + std::to_string(lanes_of(device)) +
         " -DMULTIPLY_ADD=" + (device.fuses ? "fma" : "mad");
}

std::string cache_key(const Device& device, const std::string& options, const std::string& source) {
  std::string key;
  for (const std::string& part : {device.name, device.vendor, device.version, device.driver,
                                  device.platform_version, options, source}) {
    key += part;
    key += '\n';
  }
  return key;
}

std::string build_log(cl_program program, cl_device_id device) {
  size_t size = 0;
  if (clGetProgramBuildInfo(program, device, CL_PROGRAM_BUILD_LOG, 0, nullptr, &size) !=
      CL_SUCCESS) {
    return "";
  }
  std::string log(size, '\0');
  clGetProgramBuildInfo(program, device, CL_PROGRAM_BUILD_LOG, size, log.data(), nullptr);
  return log;
}

std::vector<unsigned char> binary_of(cl_program program) {
  size_t size = 0;
  if (clGetProgramInfo(program, CL_PROGRAM_BINARY_SIZES, sizeof(size), &size, nullptr) !=
      CL_SUCCESS) {
    return {};
  }
  std::vector<unsigned char> binary(size);
  unsigned char* pointer = binary.data();
  if (size == 0 || clGetProgramInfo(program, CL_PROGRAM_BINARIES, sizeof(pointer), &pointer,
                                    nullptr) != CL_SUCCESS) {
    return {};
  }
  return binary;
}

}  // namespace

Queue::Queue(Device device) : device_(std::move(device)), cache_(KernelCache::users_folder()) {
  const cl_context_properties properties[] = {
      CL_CONTEXT_PLATFORM, reinterpret_cast<cl_context_properties>(device_.platform), 0};
  cl_int code = CL_SUCCESS;
  context_.reset(clCreateContext(properties, 1, &device_.id, nullptr, nullptr, &code));
  check_cl(code, "creating the OpenCL context");
  queue_.reset(clCreateCommandQueue(context_.get(), device_.id, 0, &code));
  check_cl(code, "creating the OpenCL queue");
}

// A process that ends while kernels run takes the driver away below them: PoCL crashes then.
Queue::~Queue() {
  clFinish(queue_.get());
}

int Queue::lanes() const {
  return lanes_of(device_);
}

Slot Queue::allocate(int64_t count, size_t element_bytes) {
  if (count <= 0) out_of_resources("a buffer of no elements cannot be allocated");
  if (count > kMostElements ||
      static_cast<size_t>(count) > device_.largest_buffer / element_bytes) {
    out_of_resources("a buffer of " + std::to_string(count) + " elements is more than " +
                     device_.name + " allocates");
  }
  auto buffer = std::make_shared<Buffer>();
  buffer->bytes = static_cast<size_t>(count) * element_bytes;
  const cl_mem_flags flags =
      CL_MEM_READ_WRITE | (device_.shares_memory ? CL_MEM_ALLOC_HOST_PTR : cl_mem_flags{0});
  cl_int code = CL_SUCCESS;
  buffer->mem.reset(clCreateBuffer(context_.get(), flags, buffer->bytes, nullptr, &code));
  check_cl(code, "allocating a buffer");
  const cl_uchar zero = 0;
  check_cl(clEnqueueFillBuffer(queue_.get(), buffer->mem.get(), &zero, sizeof(zero), 0,
                               buffer->bytes, 0, nullptr, nullptr),
           "zeroing a buffer");
  return buffer;
}

KernelHandle Queue::kernel(KernelName name) {
  cl_int code = CL_SUCCESS;
  KernelHandle kernel(clCreateKernel(program(name.file), name.function, &code));
  check_cl(code, name.function);
  return kernel;
}

size_t Queue::largest_group(const KernelHandle& kernel) const {
  size_t items = 0;
  check_cl(clGetKernelWorkGroupInfo(kernel.get(), device_.id, CL_KERNEL_WORK_GROUP_SIZE,
                                    sizeof(items), &items, nullptr),
           "looking at a kernel");
  return items;
}

cl_program Queue::program(const std::string& file) {
  const std::lock_guard lock(mutex_);
  ProgramHandle& known = programs_[file];
  if (known == nullptr) {
    const std::string source = std::string(kernel_source("common")) + kernel_source(file.c_str());
    known = build(source, cache_key(device_, compile_options(device_), source));
  }
  return known.get();
}

ProgramHandle Queue::build(const std::string& source, const std::string& key) {
  const std::string options = compile_options(device_);
  cl_int code = CL_SUCCESS;
  if (const auto binary = cache_.load(key)) {
    const unsigned char* data = binary->data();
    const size_t size = binary->size();
    ProgramHandle program(
        clCreateProgramWithBinary(context_.get(), 1, &device_.id, &size, &data, nullptr, &code));
    if (code == CL_SUCCESS && clBuildProgram(program.get(), 1, &device_.id, options.c_str(),
                                             nullptr, nullptr) == CL_SUCCESS) {
      return program;
    }
  }
  const char* text = source.c_str();
  ProgramHandle program(clCreateProgramWithSource(context_.get(), 1, &text, nullptr, &code));
  check_cl(code, "creating an OpenCL program");
  if (clBuildProgram(program.get(), 1, &device_.id, options.c_str(), nullptr, nullptr) !=
      CL_SUCCESS) {
    refuse("compiling for " + device_.name + " failed:\n" + build_log(program.get(), device_.id));
  }
  const std::vector<unsigned char> binary = binary_of(program.get());
  if (!binary.empty()) cache_.store(key, binary);
  return program;
}

void Queue::bind(const Launch& launch) {
  for (size_t i = 0; i < launch.arguments.size(); ++i) {
    const auto set = [&](const auto& value) {
      // NOLINTNEXTLINE(bugprone-sizeof-expression): a memory object is passed as its handle
      return clSetKernelArg(launch.kernel.get(), static_cast<cl_uint>(i), sizeof(value), &value);
    };
    const Argument& argument = launch.arguments[i];
    cl_int code = CL_SUCCESS;
    if (const auto* slot = std::get_if<const Slot*>(&argument)) {
      auto* mem = (*slot)->get()->mem.get();
      code = set(mem);
    } else {
      code = std::visit(set, argument);
    }
    check_cl(code, "setting a kernel's arguments");
  }
}

void Queue::run(const Launch& launch, EventHandle* event) {
  cl_event raw = nullptr;
  check_cl(
      clEnqueueNDRangeKernel(queue_.get(), launch.kernel.get(), 3, nullptr, launch.global.data(),
                             launch.local.data(), 0, nullptr, event == nullptr ? nullptr : &raw),
      "enqueueing a kernel");
  if (event != nullptr) event->reset(raw);
}

void Queue::read(const Slot& slot, void* data, size_t bytes) {
  check_cl(clEnqueueReadBuffer(queue_.get(), slot->mem.get(), CL_TRUE, 0, bytes, data, 0, nullptr,
                               nullptr),
           "reading a buffer");
}

void Queue::write(const Slot& slot, const void* data, size_t bytes) {
  check_cl(clEnqueueWriteBuffer(queue_.get(), slot->mem.get(), CL_TRUE, 0, bytes, data, 0, nullptr,
                                nullptr),
           "writing a buffer");
}

void* Queue::map(const Slot& slot) {
  cl_int code = CL_SUCCESS;
  void* address =
      clEnqueueMapBuffer(queue_.get(), slot->mem.get(), CL_TRUE, CL_MAP_READ | CL_MAP_WRITE, 0,
                         slot->bytes, 0, nullptr, nullptr, &code);
  check_cl(code, "mapping a buffer");
  return address;
}

void Queue::unmap(const Slot& slot, void* address) {
  check_cl(clEnqueueUnmapMemObject(queue_.get(), slot->mem.get(), address, 0, nullptr, nullptr),
           "unmapping a buffer");
}

void Queue::flush() {
  check_cl(clFlush(queue_.get()), "flushing the queue");
}

void Queue::wait_unless_own(cl_event event) {
  cl_context context = nullptr;
  check_cl(clGetEventInfo(event, CL_EVENT_CONTEXT, sizeof(cl_context), &context, nullptr),
           "looking at an event");
  if (context != context_.get()) wait(event);
}

void wait(cl_event event) {
  check_cl(clWaitForEvents(1, &event), "waiting for an event");
}

}  // namespace ravu::opencl
